#include "DirectoryLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "DataFiles.h"
#include "Text.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLocks[] = {kKeyStoreLockFile, kTrackLockFile};

bool IsNumber(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// What cannot be looked at, such as another user's process, has nothing open.
bool HasOpen(const fs::path& process, const struct stat& file) {
  std::error_code error;
  for (fs::directory_iterator entry(process / "fd", error), end; !error && entry != end;
       entry.increment(error)) {
    struct stat found;
    if (::stat(entry->path().c_str(), &found) == 0 && found.st_ino == file.st_ino &&
        found.st_dev == file.st_dev) {
      return true;
    }
  }
  return false;
}

// The id of another process that has the file open, "" without one.
std::string ProcessWith(const std::string& path) {
  struct stat file;
  if (::stat(path.c_str(), &file) != 0) return "";
  const std::string own = std::to_string(::getpid());
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    std::string name = entry->path().filename();
    if (IsNumber(name) && name != own && HasOpen(entry->path(), file)) return name;
  }
  return "";
}

[[noreturn]] void Refuse(const std::string& directory, const std::string& user) {
  throw DirectoryInUse(Quoted(directory) + " is in use by " + user + "; stop it first");
}

}  // namespace

DirectoryLock::DirectoryLock(const std::string& directory) {
  try {
    for (const char* const name : kLocks) Acquire(directory, name);
    const std::string process = ProcessWith(directory + "/" + kDatabaseFile);
    if (!process.empty()) Refuse(directory, "process " + process);
  } catch (...) {
    for (const int descriptor : m_descriptors) ::close(descriptor);
    throw;
  }
}

DirectoryLock::~DirectoryLock() {
  for (const int descriptor : m_descriptors) ::close(descriptor);
}

void DirectoryLock::Acquire(const std::string& directory, const char* name) {
  const std::string path = directory + "/" + name;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (descriptor < 0) return;  // none is there, or it is not ours to lock
  m_descriptors.push_back(descriptor);
  if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return;
  const std::string process = ProcessWith(path);
  Refuse(directory, process.empty() ? "a running client" : "process " + process);
}

}  // namespace zelctl
