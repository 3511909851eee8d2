// Log lines and log files. A line is begun with GetLogStream, texts and numbers are
// streamed into it, and it is written when the stream object ends.
//
// Any thread may log to any module at any time. A line is written when its level is not
// above the module's level; every check level is written. The complete message is
// masked (see AddSensitiveWord) and its control bytes are escaped as \xNN before it
// reaches any memory that outlives the line, so one stream is one line of the file.
// Nothing here throws, and nothing calls back into the caller.
#pragma once

#include <memory>
#include <string>

#include "zel_platform/platform_export.h"

// How much a line matters; the smaller, the more.
enum tagLoggerLevel : int {
  LOGGER_LEVEL_ERROR = 0,    // something failed
  LOGGER_LEVEL_WARNING = 1,  // something is odd
  LOGGER_LEVEL_INFO = 2,     // what happens
  LOGGER_LEVEL_DEBUG = 3     // in detail
};

// One line under way, owned by the statement that writes it; the static functions set the modules
// up.
class ZEL_PLATFORM_API LogStream {
 public:
  // `file` is the source path without extension. The texts must live until the line ends.
  static LogStream GetLogStream(const char* module, int level, int checkLevel, const char* file,
                                const char* function, int line);
  // The line moves on; the stream it came from writes nothing.
  LogStream(LogStream&& other) noexcept;
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;
  LogStream& operator=(LogStream&&) = delete;
  // Writes the line.
  ~LogStream();

  LogStream& operator<<(const char* text);          // null prints nothing
  LogStream& operator<<(const std::string& text);   // all of it, NUL bytes too
  LogStream& operator<<(char value);                // one character
  LogStream& operator<<(bool value);                // 1 or 0
  LogStream& operator<<(const void* value);         // an address
  LogStream& operator<<(int value);                 // decimal
  LogStream& operator<<(unsigned int value);        // decimal
  LogStream& operator<<(double value);              // up to six digits
  LogStream& operator<<(long value);                // decimal
  LogStream& operator<<(unsigned long value);       // decimal
  LogStream& operator<<(long long value);           // decimal
  LogStream& operator<<(unsigned long long value);  // decimal

  // Opens the file of a module: `sizeKb` is the size in KB at which the file is rotated,
  // `oldFiles` the number of rotated files kept (0 keeps none). Returns 0, or non-zero when
  // the file cannot be used; the module's lines are then kept in memory like those of a
  // module never opened: the last few, written once it opens.
  static int InitLog(const char* module, const char* file, int sizeKb, int oldFiles, int level);
  // Closes the module's file. Later lines are kept in memory until it is opened again.
  static void UnInitLog(const char* module);

  // From the moment this returns, each occurrence of `word` in a message of any module
  // appears as "***", the longest word first. Empty words are ignored; words are never
  // dropped again. `regulation` names a masking rule; null is the one rule there is.
  static void AddSensitiveWord(const std::string& word, const char* regulation = nullptr);

  // Masks a text for people: up to 3 bytes all stars, 4 or 5 the first byte kept, 6 to 13
  // the first and the last, 14 and more the first two and the last three.
  static std::string FilterWord(const std::string& text, int regulation);

 private:
  struct Line;
  explicit LogStream(std::unique_ptr<Line> line);

  std::unique_ptr<Line> m_line;
};

extern "C" {
// A line of the logger's own system log. Check level 0, info.
__attribute__((format(printf, 2, 3))) ZEL_PLATFORM_API void LogOneLog_WriteSystemLog(
    const char* function, const char* fmt, ...);
// A line of a module, with the level as above. `function` and `fmt` are not null.
__attribute__((format(printf, 4, 5))) ZEL_PLATFORM_API void LogOneLog_Write_EX(
    const char* module, int level, const char* function, const char* fmt, ...);
}
