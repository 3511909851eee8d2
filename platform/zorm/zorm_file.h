// The file operations below the key store. Results are 0 or the errno of what failed.
// Not thread-safe as far as two calls name the same file.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

// A lock on a file of its own, created when it is missing and never removed. It ends with the
// object or with the process, whichever is first.
class ZormFileLock {
 public:
  ZormFileLock() = default;
  ZormFileLock(const ZormFileLock&) = delete;
  ZormFileLock& operator=(const ZormFileLock&) = delete;
  ~ZormFileLock();

  // Does not wait: EWOULDBLOCK when another process, or another object, holds the lock.
  [[nodiscard]] int Acquire(const std::string& path);

 private:
  int m_descriptor = -1;
};

// Makes the directory that `file` lies in, mode 0700, with its parents, and checks that
// files can be created there.
[[nodiscard]] int PrepareDirectoryOf(const std::string& file);

// Reads up to `capacity` bytes from the beginning. What is no regular file has no bytes.
[[nodiscard]] int ReadFileStart(const std::string& path, unsigned char* bytes, std::size_t capacity,
                                std::size_t* length, mode_t* mode);

// Puts a new file, mode 0600, at `path` in one step: whenever the process or the machine stops,
// the path has the old content or all of the new one.
[[nodiscard]] int ReplaceFile(const std::string& path, const unsigned char* bytes,
                              std::size_t length);

// Appends one line with the time before it. A log that cannot be written is no failure.
void AppendLogLine(const std::string& path, const std::string& text);
