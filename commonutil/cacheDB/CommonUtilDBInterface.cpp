#include "cacheDB/CommonUtilDBInterface.h"

#include <cstddef>
#include <functional>
#include <utility>

#include "cacheDB/ConfigCacheTable.h"
#include "cacheDB/DataStorage.h"
#include "cacheDB/ECSData.h"
#include "publicInc/ResultCode.h"
#include "util/Boundary.h"
#include "util/Log.h"
#include "util/MsgMgr.h"
#include "util/ScopeGuard.h"
#include "util/SecureWipe.h"
#include "zel_platform/prax.h"
#include "zel_platform/track.h"
#include "zel_platform/zorm.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/CommonUtilDBInterface";

constexpr int kStartRetries = 100;
constexpr unsigned int kRetryPauseMs = 100;
constexpr int kSecretBytes = 16;
constexpr char kSaltSeparator = '|';
constexpr std::size_t kHiddenValueLength = 4;  // values from this length on are not logged

// Starts key management, again and again whatever the failure.
int StartWithRetries() {
  ECSUtil& ecs = ECSUtil::GetInst();
  int rc = ecs.StartZORM();
  for (int i = 0; rc != kOk && i < kStartRetries; ++i) {
    PRAX_SleepMs(kRetryPauseMs);
    rc = ecs.StartZORM();
    ZEL_LOG_MILESTONE(kInfo) << "start try times:" << i << " return code:" << rc;
  }
  return rc;
}

// A start left over is stopped; a store that is damaged is discarded, once.
int StartKeyManagement() {
  ECSUtil& ecs = ECSUtil::GetInst();
  for (bool firstAttempt = true;; firstAttempt = false) {
    int rc = StartWithRetries();
    if (rc == kZormAlreadyStarted) {
      ZEL_LOG_MILESTONE(kInfo) << "stop and retry";
      (void)ecs.StopZORM();  // the start tells
      PRAX_SleepMs(kRetryPauseMs);
      rc = ecs.StartZORM();
    }
    if (rc != kZormStoreDamaged || !firstAttempt) return rc;
    (void)ecs.StopZORM();  // the start tells
    (void)ecs.RemoveZormStoreFile();
  }
}

// A text that does not decrypt for want of memory may do so the next time.
std::string DecryptSecret(const std::string& cipherHex) {
  std::string random = ECSUtil::GetInst().DecryptZorm(cipherHex);
  if (random.empty()) random = ECSUtil::GetInst().DecryptZorm(cipherHex);
  return random;  // itself: a copy would not be wiped
}

// Takes secret and salt from the line of the salt file, which is written once more.
bool TakeStoredSecret(const std::string& line) {
  if (line.empty()) {
    ZEL_LOG_MILESTONE(kError) << "localDBKey is empty!";
    return false;
  }
  const std::size_t separator = line.find(kSaltSeparator);
  if (separator == std::string::npos || line.size() == 1) {
    ZEL_LOG_MILESTONE(kError) << "localDBKey error!";
    return false;
  }
  std::string random = DecryptSecret(line.substr(0, separator));
  const WipeGuard wipe(random);
  if (random.empty()) {
    ZEL_LOG_MILESTONE(kError) << "DecryptZorm dbRandom failed!";
    return false;
  }
  ECSUtil::GetInst().SetDBKeySalt(random, line.substr(separator + 1), line);
  return true;
}

int MakeNewSecret() {
  ECSUtil& ecs = ECSUtil::GetInst();
  std::string random = ecs.GetRealRandom(kSecretBytes);
  const WipeGuard wipe(random);
  const std::string encrypted = ecs.EncryptZorm(random);
  const std::string salt = ecs.GetRealRandom(kSecretBytes);
  // cppcheck-suppress knownConditionTrueFalse ; two random texts are not one
  if (random.empty() || encrypted.empty() || salt.empty()) {
    ZEL_LOG_MILESTONE(kError) << "generate random or encrypt failed!";
    return kFailed;
  }
  ecs.SetDBKeySalt(random, salt, encrypted + kSaltSeparator + salt);
  return kOk;
}

// Opens the database with the derived key. One that does not open is made anew, but not when the
// machine was at fault: it would cost all entries.
bool OpenDatabase(const std::string& file) {
  std::string key = ECSUtil::GetInst().GetPwdKeyFromORB();
  const WipeGuard wipe(key);
  ECSUtil::GetInst().ForgetSecret();
  if (key.empty()) return false;  // without one the database would not be encrypted
  ECSData& data = ECSData::GetInst();
  if (!data.CheckSDKCacheDB(file, key) && !data.IsUnknown()) {
    (void)data.FinalizeSDKCacheDB(file);  // always true
  }
  return data.InitializeSDKCaCheDB(file, key);
}

ConfigCache ToRecord(const ZelConfigCache& entry) {
  return ConfigCache{entry.autoId, entry.key, entry.value};
}

void LogRow(std::int32_t keyType, const ConfigCache& row) {
  if (row.value.size() >= kHiddenValueLength) {
    ZEL_LOG_DATA(kInfo) << "t:" << keyType << ", autoId: " << row.autoId << ", k: " << row.key
                        << ", vLen: " << row.value.size();
    return;
  }
  ZEL_LOG_DATA(kInfo) << "t:" << keyType << ", autoId: " << row.autoId << ", k: " << row.key
                      << ", v: " << row.value;
}

int ReadAll(ConfigCacheList& rows) {
  return QueryConfigCacheCommond().QueryAll(rows) < 1 ? kQueryNoEntry : kOk;
}

int ReadByKey(const std::string& key, ConfigCacheList& rows) {
  if (key.empty()) {
    ZEL_LOG_DATA(kError) << "CONFFIGCACHE_KEY match value is empty. key: " << key;
    return kBadParameter;
  }
  ConfigCache row;
  if (!QueryConfigCacheCommond().QueryByKey(key, row)) return kQueryNoEntry;
  rows.push_back(std::move(row));
  return kOk;
}

int ReadMatching(const ZelMatchInfo& match, ConfigCacheList& rows) {
  switch (match.keyType) {
    case kMatchAll:
      return ReadAll(rows);
    case kMatchKey:
      return ReadByKey(match.matchValue, rows);
    default:
      ZEL_LOG_DATA(kError) << "keytype is error, key: " << match.matchValue
                           << ", type: " << match.keyType;
      return kBadParameter;
  }
}

}  // namespace

SqliteInterfaceManager& SqliteInterfaceManager::GetInst() {
  static SqliteInterfaceManager& instance = *new SqliteInterfaceManager;
  return instance;
}

int SqliteInterfaceManager::InitDB(const std::string& dbPath, const std::string& logPath) {
  MutexLock lock(m_initLock);
  ScopeGuard thrown([] { (void)orb_zorm_service_stop(); });  // the exception tells
  const int rc = InitDBLocked(dbPath, logPath);
  thrown.Dismiss();
  return rc;
}

int SqliteInterfaceManager::InitDBLocked(const std::string& dbPath, const std::string& logPath) {
  ECSUtil& ecs = ECSUtil::GetInst();
  ecs.SetDBPath(AsDirectory(dbPath));
  const std::string file = ecs.GetDBPath() + kCacheDbName;
  ecs.SetLogPath(AsDirectory(logPath));
  setAddCacheFun(CallBackBatchAddConfigCache, UTCallBackQueryConfigCache);

  ZEL_LOG_MILESTONE(kInfo) << "StartZORM";
  int rc = StartKeyManagement();
  if (rc != kOk) {
    ZEL_LOG_MILESTONE(kError) << "start zorm failed, ret = " << rc;
    return rc;
  }
  ZEL_LOG_MILESTONE(kInfo) << "StartZORM success";

  rc = CheckDBSaltKey();
  if (rc != kOk) {
    ZEL_LOG_MILESTONE(kError) << "CheckDBSaltKey failed, ret = " << rc;
    (void)ecs.StopZORM();  // the earlier failure is the one to report
    return rc;
  }
  ZEL_LOG_MILESTONE(kInfo) << "start init cachedb!";
  if (!OpenDatabase(file)) {
    ZEL_LOG_MILESTONE(kError) << "InitializeSDKCaCheDB failed.";
    (void)ecs.StopZORM();  // the earlier failure is the one to report
    return kFailed;
  }

  rc = ecs.StopZORM();
  // At error level whatever the result: this milestone is to be in every log.
  ZEL_LOG_MILESTONE(kError) << "StopZORM ret = " << rc;
  if (rc == kOk) initialised.store(1, std::memory_order_release);
  return rc;
}

int SqliteInterfaceManager::CheckDBSaltKey() {
  std::string line;
  if (!ECSUtil::GetInst().ReadDBKeySalt(line)) {
    ZEL_LOG_MILESTONE(kError)
        << "the salt file cannot be read";  // a new one would cost all entries
    return kFailed;
  }
  return TakeStoredSecret(line) ? kOk : MakeNewSecret();
}

void SqliteInterfaceManager::SingleAddConfigCache(const ZelConfigCache& entry) {
  ZEL_LOG_DATA(kInfo) << "start, key = " << entry.key;
  if (initialised.load(std::memory_order_acquire) == 0) {
    ZEL_LOG(kError) << "DB not init";
    return;
  }
  const int added = AddConfigCacheCommand().SingleAdd(ToRecord(entry));
  ZEL_LOG(kInfo) << "addCount = " << added;
}

int SqliteInterfaceManager::BatchAddConfigCache(const ZelConfigCache* entries, int count) {
  if (entries == nullptr) {
    ZEL_LOG(kError) << "ptr is empty.";
    return kCacheBadArgument;
  }
  if (initialised.load(std::memory_order_acquire) == 0) {
    ZEL_LOG(kError) << "DB not init";
    return kCacheNotReady;
  }
  ConfigCacheList records;
  for (int i = 0; i < count; ++i) records.push_back(ToRecord(entries[i]));
  const int added = AddConfigCacheCommand().BatchAdd(records);
  ZEL_LOG(kInfo) << "addCount = " << added;
  return added < 1 ? kFailed : kOk;
}

int SqliteInterfaceManager::DeleteConfigCache(const ZelMatchInfo& match) {
  ZEL_LOG(kInfo) << "start, keyType = " << match.keyType;
  if (initialised.load(std::memory_order_acquire) == 0) {
    ZEL_LOG(kError) << "DB not init";
    return kCacheNotReady;
  }
  int deleted = 0;
  switch (match.keyType) {
    case kMatchKey:
      if (match.matchValue.empty()) {
        ZEL_LOG(kError) << "CONFFIGCACHE_KEY match value is empty";
        return kCacheBadArgument;
      }
      deleted = RemoveConfigCacheCommand().RemoveByKey(match.matchValue);
      break;
    case kMatchAll:
      deleted = RemoveConfigCacheCommand().RemoveByAll();
      break;
    default:
      ZEL_LOG(kError) << "DeleteConfigCache keytype is error";
      return kCacheBadArgument;
  }
  ZEL_LOG(kInfo) << "end, deleteCount = " << deleted;
  return kOk;
}

int SqliteInterfaceManager::QueryConfigCache(const ZelMatchInfo& match, ZelConfigCache* out,
                                             int* count) {
  if (out == nullptr || count == nullptr) {
    ZEL_LOG(kError) << "ptr is empty.";
    return kBadParameter;
  }
  const int capacity = *count;
  *count = 0;
  if (initialised.load(std::memory_order_acquire) == 0) {
    ZEL_LOG_DATA(kError) << "DB not init, key: " << match.matchValue << ", type: " << match.keyType;
    return kQueryNotReady;
  }
  ConfigCacheList rows;
  const int rc = ReadMatching(match, rows);
  if (rc != kOk) return rc;
  for (ConfigCache& row : rows) {
    if (*count >= capacity) break;
    LogRow(match.keyType, row);
    out[(*count)++] = ZelConfigCache{row.autoId, std::move(row.key), std::move(row.value)};
  }
  return kOk;
}

int SqliteInterfaceManager::QueryConfigCacheOfSharedPtr(
    std::shared_ptr<ZelQueryConfigCache> query) {
  if (query == nullptr) {
    ZEL_LOG(kError) << "ptr is empty.";
    return kBadParameter;
  }
  return QueryConfigCache(query->matchInfo, query->result, &query->count);
}

}  // namespace commonutil

namespace {

// The tracking library hands records of this layout over.
static_assert(offsetof(commonutil::ZelConfigCache, key) == 8 &&
                  offsetof(commonutil::ZelConfigCache, value) == 8 + sizeof(std::string) &&
                  sizeof(commonutil::ZelConfigCache) == 8 + 2 * sizeof(std::string),
              "one 32-bit integer and two texts");

constexpr char kBatchAddName[] = "int CallBackBatchAddConfigCache(const void *, int)";

int PushBatchAdd(const commonutil::ZelConfigCache* entries, int count) {
  const auto add = [entries, count] {
    return commonutil::SqliteInterfaceManager::GetInst().BatchAddConfigCache(entries, count);
  };
  return commonutil::RunOnWorker(add, kBatchAddName);
}

int QueryByKey(const char* key, commonutil::ZelConfigCache* out, int* count) {
  if (key == nullptr) return commonutil::kFailed;
  commonutil::ZelMatchInfo match;
  match.matchValue = key;
  match.keyType = commonutil::kMatchKey;
  return commonutil::SqliteInterfaceManager::GetInst().QueryConfigCache(match, out, count);
}

}  // namespace

extern "C" ZEL_API int CallBackBatchAddConfigCache(const void* entries, int count) {
  return commonutil::AtBoundary(commonutil::kFailed, [&] {
    return PushBatchAdd(static_cast<const commonutil::ZelConfigCache*>(entries), count);
  });
}

extern "C" ZEL_API int UTCallBackQueryConfigCache(const char* key, void* out, int* count) {
  return commonutil::AtBoundary(commonutil::kFailed, [&] {
    return QueryByKey(key, static_cast<commonutil::ZelConfigCache*>(out), count);
  });
}
