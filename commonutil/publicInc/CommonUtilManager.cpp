#include "publicInc/CommonUtilManager.h"

#include <mutex>

#include <json/value.h>

#include "cacheDB/CommonUtilDBInterface.h"
#include "publicInc/ResultCode.h"
#include "util/FixedText.h"
#include "util/Log.h"
#include "util/PublicUtil.h"
#include "util/ScopeGuard.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilManager";
constexpr char kInitEventId[] = "1";
constexpr char kInitEventName[] = "ut_event_sdk_init_db";
constexpr char kErrorCodeKey[] = "errorCode";

void LogStart(const UtilInitParam& param) {
  ZEL_LOG(kInfo) << "Init, logPath = " << param.logPath << ", logLevel = " << param.logLevel
                 << ", logSize = " << param.logSize << ", fileCount = " << param.fileCount
                 << " , dbPath = " << param.dbPath << " build time is " << __DATE__ << " , "
                 << __TIME__;
  ZEL_LOG(kInfo) << "build at version: " << ZEL_BUILD_VERSION;
}

// A failure costs the analytics, not the library.
void StartTracking(const UtilInitParam& param) {
  const int result = InitUnifiedTrack(param.logLevel, param.logSize, param.fileCount,
                                      param.logPath.c_str(), param.dbPath.c_str());
  if (result != 0) ZEL_LOG(kError) << "UTManager init unified track err:" << result;
}

void ReportInit(int databaseResult) {
  Json::Value event(Json::objectValue);
  event[kErrorCodeKey] = databaseResult;
  const std::string text = PublicUtil::Json2String(event);
  const UTEventRecord record = {kInitEventId, kInitEventName, nullptr, nullptr, text.c_str(), 0};
  (void)Track_AddUserTrack(&record);  // analytics only
}

}  // namespace

UtilInitParam::UtilInitParam(const tagZelUtilInitParam& param)
    : logPath(FixedText(param.logPath)),
      logLevel(param.logLevel),
      logSize(param.logSize),
      fileCount(param.fileCount),
      dbPath(FixedText(param.dbPath)) {}

CommonUtilManager& CommonUtilManager::GetInstance() {
  static CommonUtilManager& instance = *new CommonUtilManager;
  return instance;
}

int CommonUtilManager::InitCommonUtil(const tagZelUtilInitParam& param, GlobalCallback* callback) {
  if (m_initEntered.exchange(true)) return kAlreadyInitialised;
  const UtilInitParam own(param);
  StoreParam(own);
  LogStream::AddSensitiveWord(own.dbPath, nullptr);  // before the first line that shows it
  LogStart(own);
  StartTracking(own);
  PublicUtil::SetConfigFilePath(own.dbPath);
  SetGlobalCallback(callback);
  {
    MutexLock hold(m_lock);
    m_dbPath = own.dbPath;
  }
  const int result = SqliteInterfaceManager::GetInst().InitDB(own.dbPath, own.logPath);
  ReportInit(result);
  if (result == kOk) return kOk;
  ZEL_LOG(kError) << "InitDB err, ret = " << result;
  return kFailed;
}

int CommonUtilManager::UpdateLogPath(const std::string& path, tagLoggerLevel) {
  const UtilInitParam param = InitParam();
  return Track_UpdateLogPath(param.logLevel, param.logSize, param.fileCount, path.c_str());
}

void CommonUtilManager::SetDeviceGuid(const char* guid) {
  if (guid == nullptr) return;
  MutexLock hold(m_lock);
  m_sDeviceGuid = guid;
}

std::string CommonUtilManager::GetDeviceGuid() {
  std::string guid;
  {
    MutexLock hold(m_lock);
    guid = m_sDeviceGuid;
  }
  if (guid.empty()) ZEL_LOG(kWarning) << "m_sDeviceGuid is empty.";
  return guid;
}

std::string CommonUtilManager::GetDBPath() {
  MutexLock hold(m_lock);
  return m_dbPath;
}

void CommonUtilManager::SetGlobalCallback(GlobalCallback* callback) {
  MutexLock hold(m_lock);
  m_callback = callback;
}

void CommonUtilManager::ForgetGlobalCallback(GlobalCallback* callback) {
  MutexLock hold(m_lock);
  if (m_callback != callback) return;
  m_callback = nullptr;
  std::unique_lock<std::mutex> native(m_lock.native(), std::adopt_lock);
  while (m_callsRunning != 0) m_callbackIdle.wait(native);
  native.release();  // `hold` unlocks
}

void CommonUtilManager::onUsingProxyChange(const ProxyInfo& proxy) {
  GlobalCallback* callback = nullptr;
  {
    MutexLock hold(m_lock);
    callback = m_callback;
    if (callback == nullptr) return;
    ++m_callsRunning;
  }
  const ScopeGuard ended([this] {
    MutexLock hold(m_lock);
    if (--m_callsRunning == 0) m_callbackIdle.notify_all();
  });
  callback->onUsingProxyChange(proxy);
}

void CommonUtilManager::StoreParam(const UtilInitParam& param) {
  MutexLock hold(m_lock);
  m_initParam = param;
}

UtilInitParam CommonUtilManager::InitParam() {
  MutexLock hold(m_lock);
  return m_initParam;
}

}  // namespace commonutil
