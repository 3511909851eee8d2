// The process-wide registry of databases by name. Code elsewhere asks for a storage by name
// and does not keep it. Any thread may call any operation.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "cacheDB/SQLiteWrapper.h"
#include "util/Mutex.h"

namespace commonutil {

// The name of the configuration cache.
inline constexpr char kCacheDbName[] = "sdkcache.db";

class DataStorageMgr {
 public:
  static DataStorageMgr& GetInst();
  DataStorageMgr(const DataStorageMgr&) = delete;
  DataStorageMgr& operator=(const DataStorageMgr&) = delete;

  void Init() const;
  // Drops every entry.
  void Uninit();
  // Registers a database; opens no file. A known name yields the storage it has, with the
  // path and key of its first registration. Null only without memory. From here on the
  // logger masks `key`.
  IDataStorage* AddDataStorage(const std::string& dbName, const std::string& dbPath,
                               const std::string& key);
  // Null for an unknown name. Valid until the entry is removed; where another thread may
  // remove it, ShareDataStorage is the one to use.
  IDataStorage* GetDataStorage(const std::string& dbName);
  std::shared_ptr<IDataStorage> ShareDataStorage(const std::string& dbName);
  // False for an unknown name.
  bool RemoveDataStorage(const std::string& dbName);

 private:
  using Storages = std::map<std::string, std::shared_ptr<IDataStorage>>;

  DataStorageMgr() = default;

  // Storages are made and destroyed outside the lock: both log and close files.
  Mutex m_lock;
  Storages m_storages ZEL_GUARDED_BY(m_lock);
};

}  // namespace commonutil
