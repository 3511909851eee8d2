#include "BundleLogs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "Report.h"

namespace zelctl {
namespace {

constexpr std::size_t kReadBytes = 65536;
constexpr std::size_t kLongestLine = 65536;
constexpr std::uint64_t kPieceBytes = 4096;
constexpr char kTimeShape[] = "dddd-dd-dd dd:dd:dd.ddd";
constexpr std::size_t kTimeLength = sizeof(kTimeShape) - 1;

// Part of a file, line by line.
class Lines {
 public:
  Lines(int descriptor, off_t begin, off_t end)
      : m_descriptor(descriptor), m_offset(begin), m_readTo(begin), m_end(end) {}

  // Where the next line begins.
  off_t Offset() const { return m_offset; }

  // Without the line feed; false at the end. Of a line that is too long the beginning, up to a
  // blank, so that no word is cut.
  bool Next(std::string* line, bool* isCut) {
    line->clear();
    *isCut = false;
    for (;;) {
      const std::size_t feed = m_buffer.find('\n', m_at);
      const std::size_t end = std::min(feed, m_buffer.size());
      Append(end - m_at, line, isCut);
      m_at = end;
      if (feed != std::string::npos) {
        ++m_at;
        ++m_offset;
        return true;
      }
      if (!Refill()) return !line->empty() || *isCut;
    }
  }

 private:
  void Append(std::size_t count, std::string* line, bool* isCut) {
    m_offset += static_cast<off_t>(count);
    if (*isCut || count == 0) return;
    line->append(m_buffer, m_at, count);
    if (line->size() <= kLongestLine) return;
    *isCut = true;
    const std::size_t blank = line->rfind(' ', kLongestLine);
    line->resize(blank == std::string::npos ? 0 : blank);
  }

  bool Refill() {
    const auto left = static_cast<std::size_t>(m_end - m_readTo);
    m_buffer.resize(std::min(kReadBytes, left));
    m_at = 0;
    ssize_t count = 0;
    do {
      count = ::pread(m_descriptor, m_buffer.data(), m_buffer.size(), m_readTo);
    } while (count < 0 && errno == EINTR);
    m_buffer.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    m_readTo += static_cast<off_t>(m_buffer.size());
    return !m_buffer.empty();
  }

  const int m_descriptor;
  off_t m_offset;
  off_t m_readTo;
  const off_t m_end;
  std::string m_buffer;
  std::size_t m_at = 0;
};

bool BeginsWithTime(const std::string& line) {
  if (line.size() < kTimeLength) return false;
  for (std::size_t i = 0; i < kTimeLength; ++i) {
    const bool isDigit = line[i] >= '0' && line[i] <= '9';
    if (kTimeShape[i] == 'd' ? !isDigit : line[i] != kTimeShape[i]) return false;
  }
  return true;
}

std::string Masked(const BundleMask& mask, const std::string& line, bool isCut, bool* isInKey,
                   Removals* removals) {
  std::string masked = mask.Line(line, isInKey, removals);
  if (isCut) {
    ++(*removals)[static_cast<std::size_t>(Removal::kLongLine)];
    masked += std::string(" [removed: ") + NameOf(Removal::kLongLine) + "]";
  }
  return masked + '\n';
}

}  // namespace

BundleLogs::~BundleLogs() {
  for (const Log& log : m_logs) ::close(log.descriptor);
}

void BundleLogs::Add(const std::string& name, int descriptor) {
  struct stat facts = {};
  (void)::fstat(descriptor, &facts);  // an open file's facts can always be had
  Log log;
  log.name = name;
  log.descriptor = descriptor;
  log.size = facts.st_size;
  log.writtenAt = facts.st_mtime;
  m_logs.push_back(std::move(log));
}

std::uint64_t BundleLogs::Bytes() const {
  std::uint64_t bytes = 0;
  for (const Log& log : m_logs) bytes += static_cast<std::uint64_t>(log.size);
  return bytes;
}

void BundleLogs::Measure(const Step& step) {
  for (Log& log : m_logs) {
    Lines lines(log.descriptor, 0, log.size);
    Removals ignored = {};
    std::string line;
    std::string time;
    bool isCut = false;
    bool isInKey = false;
    for (off_t begin = 0; lines.Next(&line, &isCut); begin = lines.Offset()) {
      // A piece does not begin inside a private key, whose lines tell nothing by themselves.
      if (log.pieces.empty() || (log.pieces.back().bytes >= kPieceBytes && !isInKey)) {
        log.pieces.push_back({begin, time, 0, 0});
        step(0);
      }
      if (BeginsWithTime(line)) time = std::max(time, line.substr(0, kTimeLength));
      Piece& piece = log.pieces.back();
      piece.bytes += Masked(m_mask, line, isCut, &isInKey, &ignored).size();
      ++piece.lines;
      piece.time = time;
      step(static_cast<std::uint64_t>(lines.Offset() - begin));
    }
    if (!time.empty()) continue;
    for (Piece& piece : log.pieces) piece.time = TimeText(log.writtenAt);
  }
}

void BundleLogs::KeepWithin(std::uint64_t budget) {
  for (Log& log : m_logs) log.firstKept = log.pieces.size();
  for (;;) {
    Log* latest = nullptr;
    for (Log& log : m_logs) {
      if (log.firstKept == 0) continue;
      if (latest == nullptr ||
          log.pieces[log.firstKept - 1].time > latest->pieces[latest->firstKept - 1].time) {
        latest = &log;
      }
    }
    if (latest == nullptr || latest->pieces[latest->firstKept - 1].bytes > budget) return;
    budget -= latest->pieces[--latest->firstKept].bytes;
  }
}

std::uint64_t BundleLogs::LinesLeftOut(const Log& log) {
  std::uint64_t lines = 0;
  for (std::size_t i = 0; i < log.firstKept; ++i) lines += log.pieces[i].lines;
  return lines;
}

void BundleLogs::Write(const Log& log, Removals* removals,
                       const std::function<void(const std::string&)>& out, const Step& step) const {
  if (log.firstKept == log.pieces.size()) return;
  Lines lines(log.descriptor, log.pieces[log.firstKept].offset, log.size);
  std::string line;
  bool isCut = false;
  bool isInKey = false;
  for (off_t begin = lines.Offset(); lines.Next(&line, &isCut); begin = lines.Offset()) {
    out(Masked(m_mask, line, isCut, &isInKey, removals));
    step(static_cast<std::uint64_t>(lines.Offset() - begin));
  }
}

}  // namespace zelctl
