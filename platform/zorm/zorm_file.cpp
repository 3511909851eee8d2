#include "zorm/zorm_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <utility>

#include "prax/descriptor.h"
#include "prax/owner_access.h"

namespace {

using prax::Descriptor;
using prax::Retried;

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kLogMode = 0640;
constexpr mode_t kPermissionBits = 07777;
constexpr char kTemporarySuffix[] = ".tmp";

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  const std::size_t end = path.find_last_not_of('/', slash);  // "a//b" lies in "a"
  return end == std::string::npos ? "/" : path.substr(0, end + 1);
}

int SyncDirectory(const std::string& directory) {
  const Descriptor opened(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (!opened.IsOpen()) return errno;
  if (Retried([&] { return ::fsync(opened.Get()); }) == 0) return 0;
  return errno == EINVAL ? 0 : errno;  // some file systems cannot sync a directory
}

int MakeDirectory(const std::string& directory) {
  struct stat found;
  if (::stat(directory.c_str(), &found) == 0) return S_ISDIR(found.st_mode) ? 0 : ENOTDIR;
  if (errno != ENOENT) return errno;
  const std::string parent = DirectoryOf(directory);
  if (const int error = MakeDirectory(parent); error != 0) return error;
  if (MakeOwnDirectory(directory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) return errno;
  return SyncDirectory(parent);
}

int WriteAll(int descriptor, const unsigned char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t written = Retried([&] { return ::write(descriptor, bytes, length); });
    if (written < 0) return errno;
    bytes += written;
    length -= static_cast<std::size_t>(written);
  }
  return 0;
}

int WriteNewFile(const std::string& path, const unsigned char* bytes, std::size_t length) {
  Descriptor file(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kFileMode);
  if (!file.IsOpen()) return errno;
  if (::fchmod(file.Get(), kFileMode) != 0) return errno;  // the umask may have taken bits away
  if (const int error = WriteAll(file.Get(), bytes, length); error != 0) return error;
  if (Retried([&] { return ::fsync(file.Get()); }) != 0) return errno;
  return file.Close();
}

std::string TimeText() {
  struct timespec now = {};
  (void)::clock_gettime(CLOCK_REALTIME, &now);
  struct tm local = {};
  (void)::localtime_r(&now.tv_sec, &local);  // all zero when the year does not fit
  char seconds[64] = "";
  (void)::strftime(seconds, sizeof(seconds), "%Y-%m-%d %H:%M:%S", &local);
  char text[80] = "";
  (void)::snprintf(text, sizeof(text), "%s.%03ld", seconds, now.tv_nsec / 1000000);
  return text;
}

}  // namespace

ZormFileLock::~ZormFileLock() {
  if (m_descriptor < 0) return;
  // A child that was forked meanwhile shares the lock, so closing alone would not end it.
  (void)::flock(m_descriptor, LOCK_UN);
  (void)::close(m_descriptor);
}

int ZormFileLock::Acquire(const std::string& path) {
  m_descriptor = Descriptor(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, kFileMode).Release();
  if (m_descriptor < 0) return errno;
  KeepOwnerAccess(m_descriptor);
  if (Retried([&] { return ::flock(m_descriptor, LOCK_EX | LOCK_NB); }) == 0) return 0;
  const int error = errno;
  (void)::close(std::exchange(m_descriptor, -1));
  return error;
}

int PrepareDirectoryOf(const std::string& file) {
  const std::string directory = DirectoryOf(file);
  if (const int error = MakeDirectory(directory); error != 0) return error;
  return ::faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

int ReadFileStart(const std::string& path, unsigned char* bytes, std::size_t capacity,
                  std::size_t* length, mode_t* mode) {
  // Without O_NONBLOCK a pipe in the place of the file would stop the caller.
  const Descriptor file(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file.IsOpen()) return errno;
  struct stat found;
  if (::fstat(file.Get(), &found) != 0) return errno;
  *mode = found.st_mode & kPermissionBits;
  *length = 0;
  while (S_ISREG(found.st_mode) && *length < capacity) {
    const ssize_t got =
        Retried([&] { return ::read(file.Get(), bytes + *length, capacity - *length); });
    if (got < 0) return errno;
    if (got == 0) break;
    *length += static_cast<std::size_t>(got);
  }
  return 0;
}

int ReplaceFile(const std::string& path, const unsigned char* bytes, std::size_t length) {
  const std::string temporary = path + kTemporarySuffix;
  (void)::unlink(temporary.c_str());  // of a replacement that was cut off; mostly there is none
  int error = WriteNewFile(temporary, bytes, length);
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error == 0) return SyncDirectory(DirectoryOf(path));
  (void)::unlink(temporary.c_str());
  return error;
}

void AppendLogLine(const std::string& path, const std::string& text) {
  if (path.empty()) return;
  const Descriptor log(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY,
                       kLogMode);
  if (!log.IsOpen()) return;
  KeepOwnerAccess(log.Get());
  const std::string line = TimeText() + " [key store] " + text + "\n";
  // One write for a line, so that lines of other writers never mix with it.
  (void)Retried([&] { return ::write(log.Get(), line.data(), line.size()); });
}
