// What the library makes must stay usable for it: the host's umask may take the owner's own
// permissions too, and the next start could not open it.
#pragma once

#include <sys/stat.h>

inline void KeepOwnerAccess(int descriptor) noexcept {
  constexpr mode_t kOwn = S_IRUSR | S_IWUSR;
  struct stat facts;
  if (::fstat(descriptor, &facts) != 0 || !S_ISREG(facts.st_mode)) return;
  if ((facts.st_mode & kOwn) != kOwn) (void)::fchmod(descriptor, (facts.st_mode & 07777) | kOwn);
}

// As mkdir.
inline int MakeOwnDirectory(const char* path, mode_t mode) noexcept {
  const int result = ::mkdir(path, mode);
  struct stat facts;
  if (result != 0 || ::lstat(path, &facts) != 0 || !S_ISDIR(facts.st_mode)) return result;
  if ((facts.st_mode & S_IRWXU) != S_IRWXU) {
    (void)::chmod(path, (facts.st_mode & 07777) | S_IRWXU);
  }
  return result;
}
