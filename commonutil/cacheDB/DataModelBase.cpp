#include "cacheDB/DataModelBase.h"

#include "cacheDB/ConfigCacheTable.h"
#include "cacheDB/DataStorage.h"
#include "util/Log.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/DataModelBase";

}  // namespace

DataModelBase::DataModelBase(const std::string& storageName, int variant)
    : storage(nullptr),
      type(variant),
      m_storageOwner(DataStorageMgr::GetInst().ShareDataStorage(storageName)) {
  storage = m_storageOwner.get();
}

DataModelBase::~DataModelBase() = default;

void DataModelBase::SetType(int variant) { type = variant; }

void DataModelBase::LogStdException(const std::exception& e) {
  const char* const what = e.what();
  if (what == nullptr || *what == '\0') {
    ZEL_LOG(kError) << "unknown std exception : ";
    return;
  }
  ZEL_LOG(kError) << "std exception : " << what;
}

void DataModelBase::LogUnknownException() { ZEL_LOG(kError) << "unknown exception !"; }

std::unique_ptr<IDataManipulation> DataModelBase::Prepare(const std::string& sql) const {
  if (sql.empty() || storage == nullptr) return nullptr;
  return std::unique_ptr<IDataManipulation>(storage->CreateDataManipulation(sql));
}

void DDLBase::Execute() {
  Filtered([&] {
    std::string sql;
    ComposeSQL(sql);
    if (sql.empty() || storage == nullptr) return;
    storage->Exec(sql);
  });
}

DataModel& DataModel::GetInst() {
  static DataModel& instance = *new DataModel;
  return instance;
}

void DataModel::Init() const {}

void DataModel::Uninit() const {}

// The lines are written whether or not the statement succeeded; its failure has its own.
void DataModel::CreateSDKCacheTables() const {
  CreateConfigCacheTabCommand().Execute();
  ZEL_LOG_MILESTONE(kInfo) << "ConfigCacheTable created.";
}

void DataModel::CreateSDKCacheTableIndexs() const {
  CreateConfigCacheTabUniqueIndexCommand().Execute();
  ZEL_LOG_MILESTONE(kInfo) << "ConfigCacheTableUniqueIndex created.";
}

}  // namespace commonutil
