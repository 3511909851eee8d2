// One rotating text file that other writers, in this process or another, may share.
//
// A private sink of spdlog writes it and names its old files; what spdlog leaves to the only
// writer of a file is added here. Each line is one appending write, so lines of several writers
// never mix. When a line would push the file over its limit, "name.txt" becomes "name.1.txt",
// "name.1.txt" becomes "name.2.txt", and so on; with no old files to keep the file is emptied. The
// writers agree on who rotates through a lock on the file itself and look again at the path once
// they hold it. A file that was removed, renamed or replaced is opened anew; since the look at the
// path costs as much as a line, lines of the same millisecond share one.
//
// Not thread-safe: the owner serialises. Nothing throws once constructed. Nothing waits, but for a
// tenth of a second when the directory refuses the renaming.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

class LogFile {
 public:
  // A size below 1 stands for 5120 KB, a negative number of old files for 0.
  LogFile(std::string path, int sizeKb, int oldFiles);
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile();

  // Opens or creates the file, mode 0640. False when the path cannot be used; only
  // regular files can.
  [[nodiscard]] bool Open() noexcept;
  // Appends `line`, which brings its newline. False when not all of it reached the file;
  // the next one then begins a line of its own. `nowMs` is any clock in milliseconds.
  [[nodiscard]] bool Append(std::string_view line, std::int64_t nowMs) noexcept;

  const std::string& Path() const { return m_path; }

 private:
  struct Facts;
  struct Sink;
  void Close() noexcept;
  bool IsStillAtPath() noexcept;
  bool IsFullFor(std::size_t length) const noexcept;
  void Rotate(std::size_t length) noexcept;
  void ShiftOldFiles() const noexcept;
  bool Write(std::string_view bytes) noexcept;

  const std::string m_path;
  const std::uint64_t m_limitBytes;
  const int m_oldFiles;
  std::unique_ptr<Sink> m_sink;  // null: not open
  dev_t m_device = 0;            // with m_inode: which file is open
  ino_t m_inode = 0;
  std::uint64_t m_size = 0;        // as of the last look, and what was written since
  std::int64_t m_lookedAtMs = -1;  // -1: look before the next line
  bool m_torn = false;             // the file ends in the beginning of a line
};
