#include "cacheDB/ECSData.h"

#include "cacheDB/DataModelBase.h"
#include "cacheDB/DataStorage.h"
#include "util/Log.h"
#include "util/SecureWipe.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/ECSData";

}  // namespace

const char* ECSDataException::what() const noexcept { return "cache database failure"; }

ECSData& ECSData::GetInst() {
  static ECSData& instance = *new ECSData;
  return instance;
}

ECSData::ECSData() {
  ZEL_LOG_MILESTONE(kInfo) << "";
  ZEL_LOG_MILESTONE(kInfo) << " ************************************";
  ZEL_LOG_MILESTONE(kInfo) << " ******* ECSData Log Start !! *******";
  ZEL_LOG_MILESTONE(kInfo) << " ************************************";
  ZEL_LOG_MILESTONE(kInfo) << "";
}

// The texts are passed by value as part of the interface.
// NOLINTBEGIN(performance-unnecessary-value-param)

bool ECSData::InitializeSDKCaCheDB(std::string dbFile, std::string key) {
  const WipeGuard wipe(key);
  IDataStorage* const storage = DataStorageMgr::GetInst().AddDataStorage(kCacheDbName, dbFile, key);
  if (storage == nullptr) {
    ZEL_LOG_MILESTONE(kError) << "can not open (or create) cachedb.";
    return false;
  }
  ZEL_LOG_MILESTONE(kInfo) << " start init cachedb";
  if (!ECSUtil::GetInst().Exists(dbFile)) {
    ZEL_LOG_MILESTONE(kInfo) << "cachedb is not exist";  // SQLite creates it on first use
  } else {
    ZEL_LOG_MILESTONE(kInfo) << "cachedb is exist";
    if (!storage->IsCanOpen()) {
      ZEL_LOG_MILESTONE(kError) << "cachedb can not open";
      return false;
    }
    ZEL_LOG_MILESTONE(kInfo) << "cachedb can open";
  }
  ZEL_LOG_MILESTONE(kInfo) << "start create tables";
  DataModel::GetInst().CreateSDKCacheTables();
  DataModel::GetInst().CreateSDKCacheTableIndexs();
  return true;
}

bool ECSData::CheckSDKCacheDB(std::string dbFile, std::string key) {
  const WipeGuard wipe(key);
  IDataStorage* const storage = DataStorageMgr::GetInst().AddDataStorage(kCacheDbName, dbFile, key);
  if (storage == nullptr) {
    ZEL_LOG_MILESTONE(kError) << "can not open (or create) sdkcache.db.";
    return false;
  }
  if (!ECSUtil::GetInst().Exists(dbFile)) {
    ZEL_LOG_MILESTONE(kError) << "cachedb is not exist";
    return false;
  }
  ZEL_LOG_MILESTONE(kInfo) << "cachedb is exist";
  if (storage->IsCanOpen()) return true;
  ZEL_LOG_MILESTONE(kError) << "cachedb can not open";
  return false;
}

bool ECSData::IsUnknown() const {
  const auto storage = DataStorageMgr::GetInst().ShareDataStorage(kCacheDbName);
  const auto* const database = dynamic_cast<const SQLiteDB*>(storage.get());
  return database == nullptr || database->IsProbeVoid();
}

bool ECSData::FinalizeSDKCacheDB(std::string dbFile) const {
  DataStorageMgr& registry = DataStorageMgr::GetInst();
  if (const auto storage = registry.ShareDataStorage(kCacheDbName)) storage->Close();
  (void)registry.RemoveDataStorage(kCacheDbName);  // there may have been none
  for (const char* const suffix : kSideFiles) {
    (void)ECSUtil::GetInst().DeleteDBFile(dbFile + suffix);  // there may be none
  }
  const bool deleted = ECSUtil::GetInst().DeleteDBFile(dbFile);
  ZEL_LOG_MILESTONE(kWarning) << (deleted ? " delete sdkcache.db success"
                                          : " delete sdkcache.db fail");
  return true;
}

// NOLINTEND(performance-unnecessary-value-param)

}  // namespace commonutil
