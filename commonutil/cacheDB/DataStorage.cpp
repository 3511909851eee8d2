#include "cacheDB/DataStorage.h"

#include <new>
#include <utility>

#include "util/Log.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/DataStorage";

}  // namespace

DataStorageMgr& DataStorageMgr::GetInst() {
  static DataStorageMgr& instance = *new DataStorageMgr;
  return instance;
}

void DataStorageMgr::Init() const {
  ZEL_LOG_MILESTONE(kInfo) << "[cacheDB] sqlite3_threadsafe : " << SQLiteDB::ThreadSafety();
}

void DataStorageMgr::Uninit() {
  Storages dropped;
  MutexLock lock(m_lock);
  dropped.swap(m_storages);
}

IDataStorage* DataStorageMgr::AddDataStorage(const std::string& dbName, const std::string& dbPath,
                                             const std::string& key) {
  LogStream::AddSensitiveWord(key);  // before any line can show it
  ZEL_LOG_MILESTONE(kInfo) << "dbName : " << dbName;
  if (const std::shared_ptr<IDataStorage> known = ShareDataStorage(dbName)) {
    ZEL_LOG_MILESTONE(kInfo) << "return existed storage : " << known->GetDBPath();
    return known.get();
  }

  ZEL_LOG_MILESTONE(kInfo) << "new SQLiteDB : " << dbName;
  std::shared_ptr<IDataStorage> storage(new (std::nothrow) SQLiteDB(dbName, dbPath, key));
  if (storage == nullptr) {
    ZEL_LOG_MILESTONE(kError) << "new SQLiteDB failed";
    return nullptr;
  }
  MutexLock lock(m_lock);
  return m_storages.emplace(dbName, storage).first->second.get();  // the first of two wins
}

IDataStorage* DataStorageMgr::GetDataStorage(const std::string& dbName) {
  return ShareDataStorage(dbName).get();
}

std::shared_ptr<IDataStorage> DataStorageMgr::ShareDataStorage(const std::string& dbName) {
  MutexLock lock(m_lock);
  const auto found = m_storages.find(dbName);
  return found == m_storages.end() ? nullptr : found->second;
}

bool DataStorageMgr::RemoveDataStorage(const std::string& dbName) {
  std::shared_ptr<IDataStorage> removed;
  MutexLock lock(m_lock);
  const auto found = m_storages.find(dbName);
  if (found == m_storages.end()) return false;
  removed = std::move(found->second);
  m_storages.erase(found);
  return true;
}

}  // namespace commonutil
