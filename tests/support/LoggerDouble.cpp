#include <cstdarg>
#include <mutex>
#include <utility>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "logger/FormatText.h"
#include "zel_platform/logger.h"

struct LogStream::Line {
  support::LogLine record;
};

namespace {

using support::Locked;
using support::LogLine;

struct LogRecords {
  std::vector<LogLine> lines;
  std::vector<std::string> words;
  std::vector<std::string> modules;
};

void Record(LogLine&& line) { Locked<LogRecords>()->lines.push_back(std::move(line)); }

template <class Matches>
int CountLines(int level, Matches matches) {
  const Locked<LogRecords> records;
  int count = 0;
  for (const LogLine& line : records->lines) {
    if ((level == -1 || line.level == level) && matches(line.text)) ++count;
  }
  return count;
}
std::string OrEmpty(const char* text) { return text ? text : ""; }

}  // namespace

LogStream::LogStream(std::unique_ptr<Line> line) : m_line(std::move(line)) {}
LogStream::~LogStream() { Record(std::move(m_line->record)); }

LogStream LogStream::GetLogStream(const char* module, int level, int checkLevel, const char* file,
                                  const char* function, int) {
  return LogStream(std::make_unique<Line>(
      Line{{OrEmpty(module), level, checkLevel, OrEmpty(file), OrEmpty(function), ""}}));
}

// Of what can be streamed, all that the product streams.
LogStream& LogStream::operator<<(const char* text) { return *this << OrEmpty(text); }
LogStream& LogStream::operator<<(const std::string& text) {
  m_line->record.text += text;
  return *this;
}
LogStream& LogStream::operator<<(int value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(unsigned int value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(unsigned long value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(long long value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(unsigned long long value) {
  return *this << std::to_string(value);
}

int LogStream::InitLog(const char* module, const char* file, int sizeKb, int oldFiles, int level) {
  std::string opening = std::string("open ") + module + " " + file;
  for (const int number : {sizeKb, oldFiles, level}) opening += " " + std::to_string(number);
  Locked<LogRecords>()->modules.push_back(opening);
  return 0;
}
void LogStream::UnInitLog(const char* module) {
  Locked<LogRecords>()->modules.push_back(std::string("close ") + module);
}

void LogStream::AddSensitiveWord(const std::string& word, const char*) {
  if (!word.empty()) Locked<LogRecords>()->words.push_back(word);
}

std::string LogStream::FilterWord(const std::string& text, int) {
  return text.substr(0, 1) + "***";
}

void LogOneLog_WriteSystemLog(const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  Record({"system", LOGGER_LEVEL_INFO, 0, "", OrEmpty(function), FormatText(fmt, arguments)});
  va_end(arguments);
}

void LogOneLog_Write_EX(const char* module, int level, const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  Record({OrEmpty(module), level, 0, "", OrEmpty(function), FormatText(fmt, arguments)});
  va_end(arguments);
}

namespace support {

void ClearLog() { *Locked<LogRecords>() = {}; }
std::vector<LogLine> LogLines() { return Locked<LogRecords>()->lines; }

std::vector<std::string> LogTexts() {
  std::vector<std::string> texts;
  for (LogLine& line : LogLines()) texts.push_back(std::move(line.text));
  return texts;
}

int CountLog(const std::string& text, int level) {
  return CountLines(level, [&](const std::string& line) { return line == text; });
}
int CountLogPrefix(const std::string& prefix, int level) {
  return CountLines(level, [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
}
std::vector<std::string> SensitiveWords() { return Locked<LogRecords>()->words; }
std::vector<std::string> LogModules() { return Locked<LogRecords>()->modules; }

}  // namespace support
