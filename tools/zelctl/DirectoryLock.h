// Keeps clients out of a data directory, and finds out whether one is in it.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace zelctl {

// Another process uses the directory.
class DirectoryInUse : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Holds the locks of the key store and of the tracking spool, as a client does: the first while it
// starts, the second for as long as it lives. A client that starts meanwhile waits for the first.
// Takes what locks there are and makes none. A client without either is known by the database that
// it has open, if it belongs to the same user.
class DirectoryLock {
 public:
  // Throws DirectoryInUse.
  explicit DirectoryLock(const std::string& directory);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  void Acquire(const std::string& directory, const char* name);

  std::vector<int> m_descriptors;
};

}  // namespace zelctl
