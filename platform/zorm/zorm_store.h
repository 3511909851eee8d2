// The pair of files that keep the secret key.
//
// Both hold the same key with a checksum, so either one alone is enough to rebuild the other.
// A file is only ever replaced in one step, and one after the other: a process may be killed
// at any point without losing a key in use. A lock file beside the main file, "<main>.lock",
// keeps a second process out; it stays when the store is closed.
#pragma once

#include <string>

#include "zorm/zorm_cipher.h"
#include "zorm/zorm_file.h"

enum class ZormStoreResult {
  kReady,
  kLocked,      // another process has the store open
  kDamaged,     // no key left: both files damaged, or one damaged and the other missing
  kUnreadable,  // a file is there and may be intact, but the system refuses to read it
  kUnwritable,  // the directory or a file cannot be created or replaced
};

// One thread at a time. The lock ends with the object.
class ZormStore {
 public:
  ZormStore(std::string logFile, std::string storeFile, std::string backupFile);

  // Once per object. On kReady `key` is set and both files hold it, mode 0600.
  [[nodiscard]] ZormStoreResult Open(ZormKey* key);

 private:
  struct StoredFile;
  ZormStoreResult Prepare();
  StoredFile Read(const std::string& path) const;
  bool MakeKey(ZormKey* key) const;
  int Repair(const std::string& path, const char* name, const StoredFile& file,
             const ZormKey& key) const;
  ZormStoreResult Failed(ZormStoreResult result, const char* what, int error) const;
  void Log(const std::string& text) const { AppendLogLine(m_logFile, text); }

  const std::string m_logFile;
  const std::string m_storeFile;
  const std::string m_backupFile;
  ZormFileLock m_lock;
};
