// The state behind the facade: initialisation parameters, database path, device GUID and the
// callback of the facade's user. One per process, never destroyed. Any thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <string>

#include "publicInc/CommonUtilData.h"
#include "util/Mutex.h"
#include "zel_platform/logger.h"

namespace commonutil {

class CommonUtilManager {
 public:
  static CommonUtilManager& GetInstance();
  CommonUtilManager(const CommonUtilManager&) = delete;
  CommonUtilManager& operator=(const CommonUtilManager&) = delete;

  // Once per process, whatever the outcome: 0, kFailed when the database cannot be used, and
  // kAlreadyInitialised from the second call on. Runs on the command worker. May take ten
  // seconds and more when key management does not start.
  int InitCommonUtil(const tagZelUtilInitParam& param, GlobalCallback* callback);
  // Moves the tracking library's logs. The level given at initialisation stays in force.
  int UpdateLogPath(const std::string& path, tagLoggerLevel level);

  // Null is ignored. Kept in memory only.
  void SetDeviceGuid(const char* guid);
  std::string GetDeviceGuid();
  std::string GetDBPath();

  // Null is allowed. The object must stay alive until it is replaced or forgotten.
  void SetGlobalCallback(GlobalCallback* callback);
  // Drops `callback` if it is still the one set, and returns when no call of it is running.
  // Not from inside such a call.
  void ForgetGlobalCallback(GlobalCallback* callback);
  void onUsingProxyChange(const ProxyInfo& proxy);

 protected:
  CommonUtilManager() = default;  // a test starts with one of its own

 private:
  void StoreParam(const UtilInitParam& param);
  UtilInitParam InitParam();

  std::atomic<bool> m_initEntered{false};  // set by the first initialisation, never cleared

  Mutex m_lock;
  std::condition_variable m_callbackIdle;
  GlobalCallback* m_callback ZEL_GUARDED_BY(m_lock) = nullptr;
  int m_callsRunning ZEL_GUARDED_BY(m_lock) = 0;  // of m_callback
  std::string m_sDeviceGuid ZEL_GUARDED_BY(m_lock);
  std::string m_dbPath ZEL_GUARDED_BY(m_lock);
  UtilInitParam m_initParam ZEL_GUARDED_BY(m_lock);
};

}  // namespace commonutil
