// The encrypted configuration cache as the rest of the library sees it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "publicInc/ZelExport.h"
#include "util/Mutex.h"

namespace commonutil {

// One entry. Arrays of it also cross to the tracking library.
struct ZelConfigCache {
  std::int32_t autoId = 0;  // row id; 0 or less: the database assigns one
  std::string key;          // up to its first NUL byte
  std::string value;        // the same
};

// ZelMatchInfo::keyType. Any other value is an error.
enum ZelKeyType : std::int32_t {
  kMatchNone = -1,  // matches nothing: refused
  kMatchKey = 1,    // exact equality
  kMatchAll = 2,    // every entry
};

// Which entries an operation means.
struct ZelMatchInfo {
  std::string matchValue;             // the key, for kMatchKey
  std::int32_t keyType = kMatchNone;  // a ZelKeyType
};

// A query on its way to another thread.
struct ZelQueryConfigCache {
  ZelMatchInfo matchInfo;            // which entries
  ZelConfigCache* result = nullptr;  // the caller's array
  std::int32_t count = 0;            // in: its capacity; out: the entries filled
};

// Sets the cache up and runs the operations on it. Any thread may call any operation;
// every one refuses until InitDB has succeeded once.
class SqliteInterfaceManager {
 public:
  // Lives to the end of the process.
  static SqliteInterfaceManager& GetInst();
  SqliteInterfaceManager(const SqliteInterfaceManager&) = delete;
  SqliteInterfaceManager& operator=(const SqliteInterfaceManager&) = delete;

  // Starts key management, derives the key, opens or recreates the database, and stops key
  // management. Blocks for the retries: ten seconds and more when key management does not
  // start. Returns 0, 1 for a database that cannot be initialised, or the code of key
  // management. May be called again; a failure then leaves the cache usable.
  int InitDB(const std::string& dbPath, const std::string& logPath);
  // Takes secret and salt from the salt file, or makes new ones; an existing database is
  // unreadable then. 0 or 1. Needs running key management.
  int CheckDBSaltKey();

  // Stores one entry, replacing an earlier one of its key. What fails is in the log only.
  void SingleAddConfigCache(const ZelConfigCache& entry);
  // 0, or 1 when no row was written. One transaction for two entries and more.
  int BatchAddConfigCache(const ZelConfigCache* entries, int count);
  // 0 also when nothing was deleted.
  int DeleteConfigCache(const ZelMatchInfo& match);
  // `*count` is the capacity of `out` in, the entries filled out. Rows that do not fit are
  // left out without a sign.
  int QueryConfigCache(const ZelMatchInfo& match, ZelConfigCache* out, int* count);
  // The same with a query that outlives its caller. kBadParameter for null.
  int QueryConfigCacheOfSharedPtr(std::shared_ptr<ZelQueryConfigCache> query);

 protected:
  SqliteInterfaceManager() = default;  // a test starts with one of its own

 private:
  int InitDBLocked(const std::string& dbPath, const std::string& logPath) ZEL_REQUIRES(m_initLock);

  std::atomic<int> initialised{0};  // 1 from the first success on; written last, with release
  // Keeps two initialisations apart, for all of their duration. Nothing else takes it.
  Mutex m_initLock;
};

}  // namespace commonutil

// For the tracking library, which keeps entries of its own in the same table; the arrays are
// of commonutil::ZelConfigCache. Neither lets an exception out; both return 1 then.
extern "C" {
// Runs on the command worker thread and waits for it.
ZEL_API int CallBackBatchAddConfigCache(const void* entries, int count);
// Runs on the calling thread. 1 for a null key.
ZEL_API int UTCallBackQueryConfigCache(const char* key, void* out, int* count);
}
