// Lines of a file or of standard input, taken without ever blocking for long: a session has
// to print what the library sends while its user is still typing.
#pragma once

#include <cstddef>
#include <string>

#include "Options.h"

namespace zelctl {

class LineReader {
 public:
  enum class Result { kLine, kNothingYet, kEnd, kError };

  // Opens `path`, or takes standard input for "-". Throws UsageError.
  explicit LineReader(const std::string& path);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // Waits at most a millisecond. On kLine `line` holds all bytes up to the line feed, NULs
  // included; the last line needs none.
  Result Next(std::string& line);
  // Counts from 1; the line that Next returned last.
  std::size_t LineNumber() const { return m_lineNumber; }

 private:
  bool TakeBuffered(std::string& line);
  bool Refill();  // false when reading failed

  int m_fd;
  bool m_atEnd = false;
  std::string m_buffer;
  std::size_t m_begin = 0;    // where the next line begins
  std::size_t m_scanned = 0;  // no line feed lies between m_begin and here
  std::size_t m_lineNumber = 0;
};

}  // namespace zelctl
