// The log modules by name, each with its level, its file and the lines that wait for one.
//
// A module exists from its first line or its opening on and is never destroyed, so that
// any thread may keep a pointer to it. While it has no file it takes lines up to info and
// keeps the last of them; they are written first when it opens. The same happens to lines
// that a file refuses (full disk, vanished directory) until it takes lines again.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "logger/LogFile.h"

class LogModule {
 public:
  // What a module without a file keeps; the oldest lines make room.
  static constexpr std::size_t kKeptLines = 500;
  static constexpr std::size_t kKeptBytes = std::size_t{128} * 1024;

  LogModule(std::string name, LogModule* next);

  const std::string& Name() const { return m_name; }
  LogModule* Next() const { return m_next; }
  bool Takes(int level) const { return level <= m_level.load(std::memory_order_relaxed); }

  // `line` is complete: masked, with header and newline.
  void Write(std::string_view line, std::int64_t nowMs);
  [[nodiscard]] bool Open(const std::string& path, int sizeKb, int oldFiles, int level);
  void Close();
  void Reset();  // closes, and forgets the kept lines
  // The path of the open file, empty when there is none.
  std::string OpenPath() const;

 private:
  void CloseLocked();
  void KeepLocked(std::string_view line);
  void WriteKeptLocked(std::int64_t nowMs);

  const std::string m_name;
  LogModule* const m_next;
  std::atomic<int> m_level;  // written under m_lock
  mutable std::mutex m_lock;
  std::unique_ptr<LogFile> m_file;  // guarded by m_lock
  std::deque<std::string> m_kept;   // guarded by m_lock
  std::size_t m_keptBytes = 0;      // guarded by m_lock
};

class LogModules {
 public:
  static LogModules& Instance();

  // Null when there are too many modules for another one that nobody opened.
  LogModule* Find(const char* name);
  LogModule& FindForOpening(const char* name);
  void ResetAll();

 private:
  LogModule* Known(std::string_view name) const;
  LogModule& AddLocked(std::string_view name);

  std::mutex m_addLock;                      // held while a module is added
  std::atomic<LogModule*> m_first{nullptr};  // grows at the front only; release and acquire
  std::size_t m_count = 0;                   // guarded by m_addLock
};

// Milliseconds since the epoch, the time that Write and LogFile::Append expect.
std::int64_t LogClockMs();
