#include "logger/LogFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

constexpr int kDefaultSizeKb = 5120;
constexpr std::uint64_t kBytesPerKb = 1024;
constexpr mode_t kLogFileMode = 0640;

// O_NONBLOCK keeps a pipe that lies at the path from blocking the opener.
int OpenForAppend(const char* path) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  int descriptor;
  do {
    descriptor = ::open(path, kFlags, kLogFileMode);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

}  // namespace

struct LogFile::Facts {
  dev_t device;
  ino_t inode;
  mode_t mode;
  std::uint64_t size;

  // Of the open file, or of the one that `path` names.
  bool Read(int descriptor) noexcept { return ReadAt(descriptor, "", AT_EMPTY_PATH); }
  bool Read(const char* path) noexcept { return ReadAt(AT_FDCWD, path, 0); }

 private:
  bool ReadAt(int descriptor, const char* path, int flags) noexcept;
};

// Asks for no times: on kernels with fine-grained time stamps a file whose times were
// read pays for it with a journal entry at the next write, more than the write costs.
bool LogFile::Facts::ReadAt(int descriptor, const char* path, int flags) noexcept {
  constexpr unsigned kWanted = STATX_TYPE | STATX_INO | STATX_SIZE;
  struct statx brief;
  if (::statx(descriptor, path, flags, kWanted, &brief) == 0) {
    *this = {::makedev(brief.stx_dev_major, brief.stx_dev_minor), brief.stx_ino, brief.stx_mode,
             brief.stx_size};
    return true;
  }
  struct stat full;  // a sandbox may forbid the newer call
  if (::fstatat(descriptor, path, &full, flags) != 0) return false;
  *this = {full.st_dev, full.st_ino, full.st_mode, static_cast<std::uint64_t>(full.st_size)};
  return true;
}

LogFile::LogFile(std::string path, int sizeKb, int oldFiles)
    : m_path(std::move(path)),
      m_limitBytes(static_cast<std::uint64_t>(sizeKb > 0 ? sizeKb : kDefaultSizeKb) * kBytesPerKb),
      m_oldFiles(std::max(oldFiles, 0)) {}

LogFile::~LogFile() { Close(); }

void LogFile::Close() noexcept {
  if (m_descriptor >= 0) (void)::close(m_descriptor);  // every line has been handed over
  m_descriptor = -1;
}

bool LogFile::Open() noexcept {
  Close();
  m_torn = false;
  m_lookedAtMs = -1;
  m_descriptor = OpenForAppend(m_path.c_str());
  if (m_descriptor < 0) return false;
  Facts own;
  if (!own.Read(m_descriptor) || !S_ISREG(own.mode)) {
    Close();
    return false;
  }
  m_device = own.device;
  m_inode = own.inode;
  m_size = own.size;
  return true;
}

bool LogFile::Append(std::string_view line, std::int64_t nowMs) noexcept {
  if (m_descriptor < 0 || (nowMs != m_lookedAtMs && !IsStillAtPath())) {
    if (!Open()) return false;
  }
  m_lookedAtMs = nowMs;
  if (IsFullFor(line.size())) Rotate(line.size());
  if (m_descriptor < 0) return false;
  if (m_torn) {
    if (!WriteAll("\n")) return false;
    m_torn = false;
  }
  return WriteAll(line);
}

bool LogFile::IsStillAtPath() noexcept {
  Facts named;
  if (!named.Read(m_path.c_str()) || named.device != m_device || named.inode != m_inode) {
    return false;
  }
  m_size = named.size;
  return true;
}

// A line longer than the limit still gets an empty file to itself.
bool LogFile::IsFullFor(std::size_t length) const noexcept {
  return m_size != 0 && m_size + length > m_limitBytes;
}

// Where another writer holds the lock it is rotating right now; the line then goes to the
// old file. A file system without locks leaves rotation unguarded.
void LogFile::Rotate(std::size_t length) noexcept {
  if (::flock(m_descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return;
  if (!IsStillAtPath()) {
    (void)Open();  // rotated by another writer; a failure shows as a closed descriptor
    return;
  }
  if (!IsFullFor(length)) {
    (void)::flock(m_descriptor, LOCK_UN);  // emptied by another writer
    return;
  }
  if (m_oldFiles > 0 && ShiftOldFiles()) {
    (void)Open();  // closes the renamed file, which ends the lock
    return;
  }
  // Also where the directory refuses the renaming: the file must not grow for ever.
  if (::ftruncate(m_descriptor, 0) == 0) m_size = 0;
  (void)::flock(m_descriptor, LOCK_UN);
}

// Moves the file aside, and before it every old file up to the first free number.
bool LogFile::ShiftOldFiles() noexcept {
  try {
    int last = 1;
    while (last < m_oldFiles && ::access(OldName(last).c_str(), F_OK) == 0) ++last;
    for (int number = last; number > 1; --number) {
      if (::rename(OldName(number - 1).c_str(), OldName(number).c_str()) != 0) return false;
    }
    return ::rename(m_path.c_str(), OldName(1).c_str()) == 0;
  } catch (...) {  // no memory for the names
    return false;
  }
}

std::string LogFile::OldName(int number) const {
  const std::size_t nameBegin = m_path.rfind('/') + 1;  // npos + 1 is 0
  std::size_t extension = m_path.rfind('.');
  if (extension == std::string::npos || extension <= nameBegin) extension = m_path.size();
  return m_path.substr(0, extension) + "." + std::to_string(number) + m_path.substr(extension);
}

bool LogFile::WriteAll(std::string_view bytes) noexcept {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t count = ::write(m_descriptor, bytes.data() + written, bytes.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      m_torn = m_torn || written > 0;
      return false;
    }
    written += static_cast<std::size_t>(count);
    m_size += static_cast<std::uint64_t>(count);
  }
  return true;
}
