// What the libraries of the platform share for files: hidden, header only.
#pragma once

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "prax/release_with.h"

namespace prax {

// The result of a system call that is repeated for as long as a signal cuts it off.
template <class Call>
auto Retried(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

using DirectoryHandle = std::unique_ptr<DIR, ReleaseWith<::closedir>>;

// Owns a descriptor, or none. Its end leaves errno as it was.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
  // Opens `path`, never left open for a child.
  Descriptor(const char* path, int flags, mode_t mode = 0)
      : Descriptor(Retried([&] { return ::open(path, flags | O_CLOEXEC, mode); })) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    const int error = errno;
    (void)Close();
    errno = error;
  }

  bool IsOpen() const { return m_descriptor >= 0; }
  int Get() const { return m_descriptor; }
  int Release() { return std::exchange(m_descriptor, -1); }
  // 0, or the error that what was written may be lost with. Closed afterwards, whatever the result:
  // Linux releases a descriptor even when a signal interrupts.
  int Close() {
    if (!IsOpen()) return 0;
    return ::close(Release()) == 0 || errno == EINTR ? 0 : errno;
  }

 private:
  int m_descriptor;
};

}  // namespace prax
