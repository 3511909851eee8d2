#include "Transcript.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <json/value.h>

#include "JsonText.h"
#include "LineReader.h"
#include "Text.h"

namespace zelctl {
namespace {

using std::chrono::milliseconds;

constexpr mode_t kPrivateMode = 0600;
// The first line, by which a transcript is known.
constexpr char kOpening[] = R"({"transcript":"zelctl","version":1})";
constexpr char kTime[] = "ms";
constexpr char kDirection[] = "direction";
constexpr char kText[] = "text";
constexpr char kSent[] = "sent";
constexpr char kReceived[] = "received";
constexpr Json::Int64 kLongestMs = 1000LL * 60 * 60 * 24 * 365;

bool WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  return true;
}

[[noreturn]] void RefuseRecord(const std::string& path) {
  throw UsageError("cannot record to " + Quoted(path) + ": " +
                   std::generic_category().message(errno) + "; name a new file");
}

int Make(const std::string& path) {
  const int fd =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, kPrivateMode);
  if (fd < 0) RefuseRecord(path);
  if (WriteAll(fd, std::string(kOpening) + '\n')) return fd;
  const int error = errno;
  (void)::close(fd);
  errno = error;
  RefuseRecord(path);
}

// The text of what is wrong with the line, "" for nothing.
std::string ReadLine(const std::string& line, milliseconds before, TranscriptLine& read) {
  Json::Value parsed;
  if (!ParseJson(line, parsed) || !parsed.isObject()) return "is no JSON object";
  const Json::Value& object = parsed;  // reading a key of a constant value adds none
  const Json::Value& at = object[kTime];
  if (!at.isInt64() || at.asInt64() < 0 || at.asInt64() > kLongestMs) {
    return "has no time in milliseconds under \"ms\"";
  }
  if (milliseconds(at.asInt64()) < before) return "is earlier than the line before it";
  const Json::Value& direction = object[kDirection];
  if (direction != kSent && direction != kReceived) {
    return "has neither \"sent\" nor \"received\" under \"direction\"";
  }
  if (!object[kText].isString()) return "has no text under \"text\"";
  read.at = milliseconds(at.asInt64());
  read.isSent = direction == kSent;
  read.text = object[kText].asString();
  return "";
}

[[noreturn]] void RefuseReplay(const std::string& path, std::size_t number,
                               const std::string& reason) {
  throw UsageError("cannot replay " + Quoted(path) + ": line " + std::to_string(number) + ' ' +
                   reason + "; name a file that --record wrote");
}

}  // namespace

TranscriptWriter::TranscriptWriter(const std::string& path)
    : m_fd(Make(path)), m_begin(std::chrono::steady_clock::now()) {}

TranscriptWriter::~TranscriptWriter() { (void)::close(m_fd); }

bool TranscriptWriter::Write(const char* direction, const std::string& text) {
  const auto past = std::chrono::steady_clock::now() - m_begin;
  Json::Value line(Json::objectValue);
  line[kTime] = static_cast<Json::Int64>(std::chrono::duration_cast<milliseconds>(past).count());
  line[kDirection] = direction;
  line[kText] = m_hider.Hide(text);
  return WriteAll(m_fd, OnOneLine(line) + '\n');
}

std::vector<TranscriptLine> ReadTranscript(const std::string& path) {
  LineReader input(path);
  std::vector<TranscriptLine> lines;
  std::string line;
  milliseconds before(0);
  bool isOpened = false;
  for (;;) {
    const LineReader::Result result = input.Next(line);
    if (result == LineReader::Result::kNothingYet) continue;
    if (result == LineReader::Result::kError)
      RefuseReplay(path, input.LineNumber() + 1, "is unreadable");
    if (result == LineReader::Result::kEnd) break;
    if (!isOpened) {
      if (line != kOpening) RefuseReplay(path, 1, "is not the beginning of a transcript");
      isOpened = true;
      continue;
    }
    TranscriptLine read = {};
    const std::string wrong = ReadLine(line, before, read);
    if (!wrong.empty()) RefuseReplay(path, input.LineNumber(), wrong);
    read.number = input.LineNumber();
    before = read.at;
    lines.push_back(std::move(read));
  }
  if (!isOpened) RefuseReplay(path, 1, "is missing");
  return lines;
}

}  // namespace zelctl
