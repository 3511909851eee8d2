#include "LineReader.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Text.h"

namespace zelctl {
namespace {

constexpr int kPollMs = 1;
constexpr std::size_t kChunk = std::size_t{64} * 1024;

[[noreturn]] void Refuse(const std::string& path, const std::string& reason) {
  throw UsageError("cannot read " + Quoted(path) + ": " + reason +
                   "; name a file of requests, - for stdin, or a subcommand (zelctl --help)");
}

int Open(const std::string& path) {
  if (path == "-") return STDIN_FILENO;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Refuse(path, std::generic_category().message(errno));
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) {
    ::close(fd);
    Refuse(path, "it is a directory");
  }
  return fd;
}

}  // namespace

LineReader::LineReader(const std::string& path) : m_fd(Open(path)) {}

LineReader::~LineReader() {
  if (m_fd != STDIN_FILENO) ::close(m_fd);
}

LineReader::Result LineReader::Next(std::string& line) {
  if (TakeBuffered(line)) return Result::kLine;
  if (m_atEnd) return Result::kEnd;
  if (!Refill()) return Result::kError;
  if (TakeBuffered(line)) return Result::kLine;
  return m_atEnd ? Result::kEnd : Result::kNothingYet;
}

bool LineReader::TakeBuffered(std::string& line) {
  std::size_t end = m_buffer.find('\n', m_scanned);
  m_scanned = m_buffer.size();
  if (end == std::string::npos) {
    if (!m_atEnd || m_begin == m_buffer.size()) return false;
    end = m_buffer.size();
  }
  line.assign(m_buffer, m_begin, end - m_begin);
  m_begin = m_scanned = end < m_buffer.size() ? end + 1 : end;
  ++m_lineNumber;
  return true;
}

bool LineReader::Refill() {
  pollfd ready{m_fd, POLLIN, 0};
  if (::poll(&ready, 1, kPollMs) <= 0) return true;
  m_buffer.erase(0, m_begin);
  m_begin = 0;
  const std::size_t kept = m_scanned = m_buffer.size();
  m_buffer.resize(kept + kChunk);
  const ssize_t got = ::read(m_fd, m_buffer.data() + kept, kChunk);
  const int error = errno;
  m_buffer.resize(kept + (got > 0 ? static_cast<std::size_t>(got) : 0));
  if (got > 0 || (got < 0 && (error == EINTR || error == EAGAIN))) return true;
  m_atEnd = true;
  if (got == 0) return true;
  Complain("cannot read on: " + std::generic_category().message(error));
  return false;
}

}  // namespace zelctl
