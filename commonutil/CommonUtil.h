// The facade: what the SDK's other libraries call. Stateless; any thread.
//
// Initialisation runs on the command worker and blocks its caller until it has ended. After
// UninitCommonUtil or StopMsgThread the worker is gone for good, and a call that needs it
// throws std::future_error (the first) or never returns (the later ones).
#pragma once

#include <string>

#include "publicInc/CommonUtilData.h"
#include "publicInc/ZelExport.h"
#include "zel_platform/logger.h"

namespace commonutil {

class ZEL_API CommonUtil {
 public:
  static CommonUtil& getInst();

  // Sets tracking, the configuration directory and the encrypted cache up, once per process.
  // Both paths are directories. `callback` may be null and must stay alive. Returns 0,
  // kFailed when the cache database cannot be used (the rest works), kAlreadyInitialised.
  int InitCommonUtil(const tagZelUtilInitParam& param, GlobalCallback* callback);
  // Ends the command worker and tracking; the database stays open, and there is no second
  // initialisation. Returns the tracking library's result.
  int UninitCommonUtil();
  // Ends the command worker only.
  void StopMsgThread();

  // Moves the tracking library's logs; `level` is not used, the one of the initialisation
  // stays in force. Returns the tracking library's result.
  int SetLogPath(const std::string& path, tagLoggerLevel level);

  // Copies the GUID with its NUL into `buf` of `len` bytes, and sets `len` to its length without
  // NUL, also when it did not fit: `buf` is empty then. A null `buf` does nothing.
  void GetDeviceGuid(char* buf, int& len);
  // Null is ignored. Not persistent.
  void SetDeviceGuid(const char* guid);
  // As given at initialisation; empty before.
  std::string GetDBPath();

 private:
  CommonUtil() = default;
};

}  // namespace commonutil
