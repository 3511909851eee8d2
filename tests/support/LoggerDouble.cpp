#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
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
  std::vector<support::LogOpening> openings;
  std::vector<std::string> closings;
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

template <class T>
std::string Formatted(const char* format, T value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

}  // namespace

LogStream::LogStream(std::unique_ptr<Line> line) : m_line(std::move(line)) {}
LogStream::LogStream(LogStream&& other) noexcept = default;

LogStream::~LogStream() {
  if (m_line) Record(std::move(m_line->record));
}

LogStream LogStream::GetLogStream(const char* module, int level, int checkLevel, const char* file,
                                  const char* function, int line) {
  return LogStream(std::make_unique<Line>(Line{{OrEmpty(module), level, checkLevel, OrEmpty(file),
                                                OrEmpty(function), line, std::string()}}));
}

LogStream& LogStream::operator<<(const char* text) {
  if (text) m_line->record.text += text;
  return *this;
}
LogStream& LogStream::operator<<(const std::string& text) {
  m_line->record.text += text;
  return *this;
}
LogStream& LogStream::operator<<(char value) {
  m_line->record.text += value;
  return *this;
}
LogStream& LogStream::operator<<(bool value) { return *this << (value ? "1" : "0"); }
LogStream& LogStream::operator<<(const void* value) { return *this << Formatted("%p", value); }
LogStream& LogStream::operator<<(int value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(unsigned int value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(double value) { return *this << Formatted("%g", value); }
LogStream& LogStream::operator<<(long value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(unsigned long value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(long long value) { return *this << std::to_string(value); }
LogStream& LogStream::operator<<(unsigned long long value) {
  return *this << std::to_string(value);
}

int LogStream::InitLog(const char* module, const char* file, int sizeKb, int oldFiles, int level) {
  Locked<LogRecords>()->openings.push_back(
      {OrEmpty(module), OrEmpty(file), sizeKb, oldFiles, level});
  return 0;
}
void LogStream::UnInitLog(const char* module) {
  Locked<LogRecords>()->closings.push_back(OrEmpty(module));
}

void LogStream::AddSensitiveWord(const std::string& word, const char*) {
  if (!word.empty()) Locked<LogRecords>()->words.push_back(word);
}

std::string LogStream::FilterWord(const std::string& text, int) {
  const std::size_t length = text.size();
  const std::size_t front = length < 4 ? 0 : length < 14 ? 1 : 2;
  const std::size_t back = length < 6 ? 0 : length < 14 ? 1 : 3;
  std::string masked(length, '*');
  masked.replace(0, front, text, 0, front);
  masked.replace(length - back, back, text, length - back, back);
  return masked;
}

void LogOneLog_WriteSystemLog(const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  Record({"system", LOGGER_LEVEL_INFO, 0, "", OrEmpty(function), 0,
          support::FormatText(fmt, arguments)});
  va_end(arguments);
}

void LogOneLog_Write_EX(const char* module, int level, const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  Record(
      {OrEmpty(module), level, 0, "", OrEmpty(function), 0, support::FormatText(fmt, arguments)});
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
  return CountLines(
      level, [&](const std::string& line) { return line.compare(0, prefix.size(), prefix) == 0; });
}
std::vector<std::string> SensitiveWords() { return Locked<LogRecords>()->words; }
std::vector<LogOpening> LogOpenings() { return Locked<LogRecords>()->openings; }
std::vector<std::string> LogClosings() { return Locked<LogRecords>()->closings; }

}  // namespace support
