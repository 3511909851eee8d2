#include "publicInc/CommonUtilPrivateManager.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "publicInc/CommonUtilManager.h"
#include "publicInc/ResultCode.h"
#include "util/Boundary.h"
#include "util/FixedText.h"
#include "util/Log.h"
#include "util/MsgMgr.h"
#include "zel_platform/cache.h"
#include "zel_platform/login.h"
#include "zel_platform/securec.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilPrivateManager";

constexpr char kMemoryPrefix[] = "db__";
constexpr int kNoMemory = -1;
// About a gigabyte of empty entries. More is never meant: the system may grant it all the same
// and kill the process when it is used.
constexpr int kMostRows = 1 << 24;
constexpr std::size_t kSmartRoomBytes = 32;

constexpr char kSingleAddName[] =
    "int commonutil::CommonUtilPrivateManager::SingleAddConfigCache(const "
    "commonutil::ZelConfigCache &)";
constexpr char kBatchAddName[] =
    "int commonutil::CommonUtilPrivateManager::BatchAddConfigCache(const "
    "commonutil::ZelConfigCache *, int)";
constexpr char kDeleteName[] =
    "int commonutil::CommonUtilPrivateManager::DeleteConfigCacheByKey(const std::string &)";
constexpr char kQueryName[] =
    "int commonutil::CommonUtilPrivateManager::QueryConfigCacheByKey(const std::string &, "
    "commonutil::ZelConfigCache *, int *)";

std::string MemoryKey(const std::string& key) {
  std::string memoryKey;
  memoryKey.reserve(sizeof(kMemoryPrefix) + key.size());
  memoryKey += kMemoryPrefix;
  memoryKey += key;
  return memoryKey;
}

int StoreInMemory(const ZelConfigCache& row) {
  return AtBoundary(kFailed, [&row] {
    return ZELCache::GetInstance()->Put(MemoryKey(row.key),
                                        std::make_shared<std::string>(row.value));
  });
}

void ReleaseQuery(ZelQueryConfigCache* query) {
  delete[] query->result;
  delete query;
}

// A query with room for `count` entries. Null when there is no memory.
std::shared_ptr<ZelQueryConfigCache> MakeQuery(const std::string& key, int count) {
  if (count > kMostRows) return nullptr;
  try {
    const std::shared_ptr<ZelQueryConfigCache> query(new ZelQueryConfigCache, ReleaseQuery);
    query->matchInfo.matchValue = key;
    query->matchInfo.keyType = kMatchKey;
    query->result = new (std::nothrow) ZelConfigCache[static_cast<std::size_t>(count)];
    query->count = count;
    return query->result == nullptr ? nullptr : query;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int QueryDatabase(const std::string& key, ZelConfigCache* out, int* count) {
  const std::shared_ptr<ZelQueryConfigCache> query = MakeQuery(key, *count);
  if (query == nullptr) {
    ZEL_LOG(kError) << "memory error.";
    return kNoMemory;
  }
  const int result = RunOnWorker(
      [&query] { return SqliteInterfaceManager::GetInst().QueryConfigCacheOfSharedPtr(query); },
      kQueryName);
  *count = query->count;
  for (int i = 0; i < query->count; ++i) out[i] = std::move(query->result[i]);
  return result;
}

void TellTracking(const tagZelUtilPublicSdkParam& param) {
  const std::string texts[] = {FixedText(param.uuid),       FixedText(param.account),
                               FixedText(param.gantryIp),   FixedText(param.sbcIp),
                               FixedText(param.further[0]), FixedText(param.further[1]),
                               FixedText(param.further[2]), FixedText(param.further[3]),
                               FixedText(param.further[4]), FixedText(param.further[5])};
  UTPublicSdkRecord record = {};
  static_assert(std::size(texts) == std::size(record.text));
  for (std::size_t i = 0; i < std::size(texts); ++i) record.text[i] = texts[i].c_str();
  (void)Track_ConfigPublicSdkParam(&record);  // analytics only
}

}  // namespace

CommonUtilPrivateManager& CommonUtilPrivateManager::getInst() {
  static CommonUtilPrivateManager instance;  // has nothing to destroy
  return instance;
}

int CommonUtilPrivateManager::SingleAddConfigCache(const ZelConfigCache& row) {
  ZEL_LOG_DATA(kInfo) << "start, key = " << row.key;
  return AtWorkersEdge([&row] {
    std::function<void()> command = [row] {
      AtBoundary([&] { SqliteInterfaceManager::GetInst().SingleAddConfigCache(row); });
    };
    MsgMainThreadMgrHandler::GetInst().PushCmd(std::move(command), kSingleAddName);
    return StoreInMemory(row);
  });
}

int CommonUtilPrivateManager::BatchAddConfigCache(const ZelConfigCache* rows, int count) {
  if (rows == nullptr || count < 1) {
    ZEL_LOG(kError) << "ptr is empty.";
    return kCacheBadArgument;
  }
  // Memory alone decides the result: a value that the database lost serves until the next start.
  (void)RunOnWorker(
      [rows, count] { return SqliteInterfaceManager::GetInst().BatchAddConfigCache(rows, count); },
      kBatchAddName);
  int added = 0;
  for (int i = 0; i < count; ++i) added += StoreInMemory(rows[i]) == kOk ? 1 : 0;
  ZEL_LOG(kInfo) << "BatchAddConfigCache, addCount = " << added << ", listLength: " << count;
  return added == 0 ? kFailed : kOk;
}

int CommonUtilPrivateManager::DeleteConfigCacheByKey(const std::string& key) {
  ZEL_LOG_DATA(kInfo) << "start, key = " << key;
  return AtWorkersEdge([&key] {
    (void)ZELCache::GetInstance()->Remove(MemoryKey(key));  // the database decides the result
    return RunOnWorker(
        [&key] {
          return SqliteInterfaceManager::GetInst().DeleteConfigCache(ZelMatchInfo{key, kMatchKey});
        },
        kDeleteName);
  });
}

int CommonUtilPrivateManager::QueryConfigCacheByKey(const std::string& key, ZelConfigCache* out,
                                                    int* count) {
  if (out == nullptr || count == nullptr || *count < 1) {
    ZEL_LOG(kError) << "param error.";
    return kBadParameter;
  }
  return AtWorkersEdge([&] {
    std::shared_ptr<std::string> value;
    if (ZELCache::GetInstance()->Get(MemoryKey(key), value) != kOk || value == nullptr) {
      return QueryDatabase(key, out, count);
    }
    out[0].value = *value;
    *count = 1;
    return int{kOk};
  });
}

bool CommonUtilPrivateManager::addConfigInfo(std::string key, std::string value) {
  const ZelConfigCache row{0, std::move(key), std::move(value)};
  const int result = SingleAddConfigCache(row);
  if (result == kOk) return true;
  ZEL_LOG_DATA(kError) << "SingleAddConfigCache result = " << result
                       << " addData.strvalue = " << row.value;
  return false;
}

bool CommonUtilPrivateManager::queryConfigInfoByKey(std::string key, std::string& value) {
  ZelConfigCache row;
  int count = 1;
  const int result = QueryConfigCacheByKey(key, &row, &count);
  if (result != kOk) {
    ZEL_LOG(kError) << "QueryConfigCacheByKey failed, result: " << result;
    return false;
  }
  value = std::move(row.value);
  return true;
}

std::string CommonUtilPrivateManager::EncryptThenBase64Encode(std::string& text) {
  return PublicUtil::getEncryptUtilsInst().EncryptThenBase64Encode(text);
}

int CommonUtilPrivateManager::Base64DecodeThenDecrypt(const std::string& text, char* out,
                                                      int outLength) {
  return PublicUtil::getEncryptUtilsInst().Base64DecodeThenDecrypt(text, out, outLength);
}

std::string CommonUtilPrivateManager::Base64DecodeThenDecrypt(const std::string& text) {
  return PublicUtil::getEncryptUtilsInst().Base64DecodeThenDecrypt(text);
}

std::string CommonUtilPrivateManager::FilterWord(const std::string& text, FILTER_WORD_TYPE type) {
  return PublicUtil::filterWord(text, type);
}

int CommonUtilPrivateManager::ConfigPublicSdkParam(const tagZelUtilPublicSdkParam& param) {
  TellTracking(param);
  tagCONFCTRL_TERMINAL_PUBLIC_SDK record = {};
  const errno_t error = strcpy_s(record.uuid, sizeof(record.uuid), param.uuid) +
                        strcpy_s(record.account, sizeof(record.account), param.account) +
                        strcpy_s(record.gantryIp, sizeof(record.gantryIp), param.gantryIp) +
                        strcpy_s(record.sbcIp, sizeof(record.sbcIp), param.sbcIp);
  if (error != 0) ZEL_LOG(kError) << "secure func return err: " << error;
  (void)orb_confctrl_set_terminal_public_sdk_param(&record);  // deliberately not the result
  return kOk;
}

int CommonUtilPrivateManager::ConfigSmartRoomParam(const tagZelUtilsSmartRoomParam* param) {
  ZEL_LOG(kInfo) << "start.";
  if (param == nullptr) return kBadParameter;
  char room[kSmartRoomBytes] = {};
  const errno_t error = strcpy_s(room, sizeof(room), param->room);
  if (error != 0) ZEL_LOG(kError) << "secure func return err: " << error;
  return orb_login_set_smartroom_param(room);
}

std::string CommonUtilPrivateManager::GetDeviceGuid() {
  return CommonUtilManager::GetInstance().GetDeviceGuid();
}

}  // namespace commonutil
