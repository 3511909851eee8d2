#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "prax/prax_internal.h"

namespace {

using prax::Descriptor;
using prax::Retried;
using prax::TextOf;

constexpr char kTempSuffix[] = ".tmp";
constexpr mode_t kTempMode = 0600;  // until the wanted mode is set
constexpr mode_t kModeBits = 07777;
constexpr int kFirstListCapacity = 16;

int OpenFile(const char* path, int flags, mode_t mode = 0) {
  return Retried([&] { return ::open(path, flags | O_CLOEXEC | O_NOFOLLOW, mode); });
}

// Takes the temporary file for this descriptor: false while another writer has it or when
// one has already removed it. A file system without locks has one writer, as far as it can tell.
bool Claim(const Descriptor& file) {
  const int rc = Retried([&] { return ::flock(file.Get(), LOCK_EX | LOCK_NB); });
  if (rc != 0 && errno == EWOULDBLOCK) return false;
  struct stat status {};
  return ::fstat(file.Get(), &status) == 0 && status.st_nlink != 0;
}

int Busy() {
  errno = EBUSY;
  return -1;
}

// Removes what a killed writer has left under the name. A living one holds a lock, which the
// kernel drops with the process; only who has claimed the file may remove it.
int RemoveStale(const char* temp) {
  const Descriptor stale(OpenFile(temp, O_WRONLY | O_NONBLOCK));
  if (stale.IsOpen() && !Claim(stale)) return Busy();
  return ::unlink(temp) == 0 || errno == ENOENT ? 0 : -1;
}

int CreateTemp(const char* temp) {
  if (RemoveStale(temp) != 0) return -1;
  return OpenFile(temp, O_WRONLY | O_CREAT | O_EXCL, kTempMode);
}

int WriteAll(int descriptor, const void* data, size_t size) {
  const char* at = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = Retried([&] { return ::write(descriptor, at, size); });
    if (written < 0) return -1;
    at += written;
    size -= static_cast<size_t>(written);
  }
  return 0;
}

int WriteTemp(int descriptor, const void* data, size_t size, mode_t mode) {
  if (Retried([&] { return ::fchmod(descriptor, mode); }) != 0) return -1;
  if (WriteAll(descriptor, data, size) != 0) return -1;
  return Retried([&] { return ::fsync(descriptor); });
}

// Some file systems cannot sync a directory and need not.
int SyncDirectory(const Descriptor& directory) {
  if (Retried([&] { return ::fsync(directory.Get()); }) == 0) return 0;
  return errno == EINVAL ? 0 : -1;
}

int OpenDirectoryOf(const char* path) {
  const char* const slash = ::strrchr(path, '/');
  char directory[PATH_MAX] = ".";
  if (slash != nullptr) {
    const auto length = static_cast<size_t>(slash - path) + 1;
    ::memcpy(directory, path, length);
    directory[length] = '\0';
  }
  return Retried([&] { return ::open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
}

int WriteAndRename(const char* temp, const char* path, const void* data, size_t size, mode_t mode) {
  const Descriptor file(CreateTemp(temp));
  if (!file.IsOpen()) return -1;
  if (!Claim(file)) return Busy();
  if (WriteTemp(file.Get(), data, size, mode) == 0 && ::rename(temp, path) == 0) return 0;
  const int error = errno;
  (void)::unlink(temp);  // what stays behind is removed by the next writer
  errno = error;
  return -1;
}

// The temporary file has one fixed name, so that killed processes leave at most one. Threads
// of this process take turns; a file that another process is writing makes this fail. A link
// at `path` is itself replaced.
int Replace(const char* path, const void* data, size_t size, mode_t mode) {
  static std::mutex turn;
  char temp[PATH_MAX];
  const int length = ::snprintf(temp, sizeof(temp), "%s%s", path, kTempSuffix);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(temp)) return prax::Fail(ENAMETOOLONG);
  // Opened first: after the rename there is no way back.
  const Descriptor directory(OpenDirectoryOf(path));
  if (!directory.IsOpen()) return -1;
  const std::lock_guard<std::mutex> hold(turn);
  if (WriteAndRename(temp, path, data, size, mode) != 0) return -1;
  return SyncDirectory(directory);
}

FILE* NoFile(int error) {
  (void)prax::Fail(error);
  return nullptr;
}

size_t NoItems(int error) {
  (void)prax::Fail(error);
  return 0;
}

// The entries found so far; frees them unless they are handed over.
class NameList {
 public:
  NameList() = default;
  ~NameList() { PRAX_DestoryNameList(m_entries, m_count); }
  NameList(const NameList&) = delete;
  NameList& operator=(const NameList&) = delete;

  bool Add(const struct dirent& entry) {
    if (m_count == m_capacity && !Grow()) return false;
    const size_t size = std::max<size_t>(sizeof(entry), entry.d_reclen);
    auto* const copy = static_cast<struct dirent*>(::calloc(1, size));
    if (copy == nullptr) return false;
    ::memcpy(copy, &entry, std::min<size_t>(size, entry.d_reclen));
    m_entries[m_count++] = copy;
    return true;
  }

  int HandOver(struct dirent*** list) {
    *list = m_entries;
    const int count = m_count;
    m_entries = nullptr;
    m_count = 0;
    return count;
  }

 private:
  bool Grow() {
    if (m_capacity > INT_MAX / 2) return false;
    const int capacity = std::max(kFirstListCapacity, m_capacity * 2);
    void* const grown =
        // NOLINTNEXTLINE(bugprone-sizeof-expression): a list of pointers is meant
        ::reallocarray(m_entries, static_cast<size_t>(capacity), sizeof(*m_entries));
    if (grown == nullptr) return false;
    m_entries = static_cast<struct dirent**>(grown);
    m_capacity = capacity;
    return true;
  }

  struct dirent** m_entries = nullptr;
  int m_count = 0;
  int m_capacity = 0;
};

// Not every file system reports the type with the name. False when it cannot be told, as of
// an entry that has gone meanwhile.
bool FillType(int directory, struct dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return true;
  struct stat status {};
  if (::fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
  entry.d_type = static_cast<unsigned char>(IFTODT(status.st_mode));
  return true;
}

// 0 at the end of the directory; -1 when it could not be read or stored whole.
int CollectEntries(DIR* directory, NameList& names, int (*filter)(const struct dirent*)) {
  for (;;) {
    errno = 0;
    struct dirent* const entry = ::readdir(directory);
    if (entry == nullptr) return errno == 0 ? 0 : -1;
    if (!FillType(::dirfd(directory), *entry)) continue;
    if (filter != nullptr && filter(entry) == 0) continue;
    if (!names.Add(*entry)) return prax::Fail(ENOMEM);
  }
}

}  // namespace

int PRAX_Chmod(const char* path, unsigned int mode) {
  const int fault = prax::Fault(PRAX_REF_CHMOD);
  if (fault != 0) return prax::Fail(fault);
  return prax::Kept(Retried([&] { return ::chmod(TextOf(path), mode & kModeBits); }));
}

FILE* PRAX_Fopen(const char* path, const char* mode) {
  const int fault = prax::Fault(PRAX_REF_FOPEN);
  if (fault != 0) return NoFile(fault);
  char closedOnExec[16];
  const int length = ::snprintf(closedOnExec, sizeof(closedOnExec), "%se", TextOf(mode));
  if (length < 0 || static_cast<size_t>(length) >= sizeof(closedOnExec)) return NoFile(EINVAL);
  FILE* file = ::fopen(TextOf(path), closedOnExec);
  while (file == nullptr && errno == EINTR) file = ::fopen(TextOf(path), closedOnExec);
  return file != nullptr ? file : NoFile(errno);
}

size_t PRAX_Fread(void* buffer, size_t size, size_t count, FILE* file) {
  if (buffer == nullptr || file == nullptr) return NoItems(EINVAL);
  const size_t items = ::fread(buffer, size, count, file);
  if (items < count && ::ferror(file) != 0) prax::lastError = errno;
  return items;
}

size_t PRAX_Fwrite(const void* buffer, size_t size, size_t count, FILE* file) {
  if (buffer == nullptr || file == nullptr) return NoItems(EINVAL);
  const size_t items = ::fwrite(buffer, size, count, file);
  if (items < count) prax::lastError = errno;
  return items;
}

// The stream is gone whatever the result, so this is never tried again.
int PRAX_Fclose(FILE* file) {
  return file == nullptr ? prax::Fail(EINVAL) : prax::Kept(::fclose(file));
}

int PRAX_ReplaceFile(const char* path, const void* data, size_t size, unsigned int mode) {
  const int fault = prax::Fault(PRAX_REF_REPLACE_FILE);
  if (fault != 0) return prax::Fail(fault);
  if (*TextOf(path) == '\0') return prax::Fail(ENOENT);
  if (data == nullptr && size != 0) return prax::Fail(EINVAL);
  return prax::Kept(Replace(path, data, size, mode & kModeBits));
}

int PRAX_GetFileSize(const char* path, unsigned long* size) {
  if (size == nullptr) return prax::Fail(EINVAL);
  PRAX_STAT status{};
  if (PRAX_Stat(path, &status) != 0) return -1;
  *size = static_cast<unsigned long>(status.st_size);
  return 0;
}

int PRAX_GetLastErr(void) { return prax::lastError; }

int PRAX_Stat(const char* path, PRAX_STAT* status) {
  if (status == nullptr) return prax::Fail(EINVAL);
  return prax::Kept(Retried([&] { return ::stat(TextOf(path), status); }));
}

int PRAX_Remove(const char* path) {
  const int fault = prax::Fault(PRAX_REF_REMOVE);
  if (fault != 0) return prax::Fail(fault);
  return prax::Kept(Retried([&] { return ::remove(TextOf(path)); }));
}

int PRAX_RmDir(const char* path) {
  return prax::Kept(Retried([&] { return ::rmdir(TextOf(path)); }));
}

int PRAX_MkDir(const char* path, unsigned int mode) {
  return prax::Kept(Retried([&] { return ::mkdir(TextOf(path), mode & kModeBits); }));
}

int PRAX_IsDir(const char* path) {
  PRAX_STAT status{};
  return PRAX_Stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

void* PRAX_OpenDir(const char* path) {
  DIR* directory = ::opendir(TextOf(path));
  while (directory == nullptr && errno == EINTR) directory = ::opendir(TextOf(path));
  if (directory == nullptr) prax::lastError = errno;
  return directory;
}

int PRAX_CloseDir(void* dir) {
  return dir == nullptr ? prax::Fail(EINVAL) : prax::Kept(::closedir(static_cast<DIR*>(dir)));
}

int PRAX_ScanDir(const char* dir, struct dirent*** list, int (*filter)(const struct dirent*)) {
  if (list == nullptr) return prax::Fail(EINVAL);
  *list = nullptr;
  const prax::DirectoryHandle directory(static_cast<DIR*>(PRAX_OpenDir(dir)));
  if (directory == nullptr) return -1;
  NameList names;
  if (CollectEntries(directory.get(), names, filter) != 0) return prax::Fail(errno);
  return names.HandOver(list);
}

void PRAX_DestoryNameList(struct dirent** list, int count) {
  for (int i = 0; list != nullptr && i < count; ++i) ::free(list[i]);
  ::free(list);
}
