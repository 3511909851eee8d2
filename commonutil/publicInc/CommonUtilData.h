// The records that callers hand to the facade. Texts are fixed arrays, NUL-terminated UTF-8.
#pragma once

#include <cstdint>
#include <string>

#include "proxy/ProxyInfo.h"

namespace commonutil {

// What the initialisation needs.
struct tagZelUtilInitParam {
  char logPath[512];       // directory of the logs
  std::int32_t logLevel;   // 0 error to 3 debug
  std::int32_t logSize;    // of one log file, in KB
  std::int32_t fileCount;  // rotated files to keep
  char dbPath[512];        // directory of the database
};
using ZelUtilInitParam = tagZelUtilInitParam;  // the same record

// The library's own copy.
struct UtilInitParam {
  UtilInitParam() = default;
  explicit UtilInitParam(const tagZelUtilInitParam& param);  // copies all of it

  std::string logPath;         // directory of the logs
  std::int32_t logLevel = 0;   // 0 error to 3 debug
  std::int32_t logSize = 0;    // in KB
  std::int32_t fileCount = 0;  // rotated files to keep
  std::string dbPath;          // directory of the database
};

// The user's proxy.
struct tagZelUtilProxyInfo {
  char server[256];    // host or IP; empty: no proxy
  std::uint32_t port;  // of the proxy
  char userName[128];  // empty: without an account
  char password[128];  // in clear: wipe it after the call
};

// What the conference terminal reports of itself. The first four are also kept by conference
// control: uuid and account up to 128 characters there, the two addresses up to 127.
struct tagZelUtilPublicSdkParam {
  char uuid[256];        // of the user
  char account[256];     // of the user
  char gantryIp[256];    // address
  char sbcIp[256];       // address
  char further[6][256];  // for the tracking library only
};

// The room that a terminal stands in.
struct tagZelUtilsSmartRoomParam {
  char room[32];  // NUL-terminated
};

// What the user of the facade is told without asking. Calls come on the threads of the
// events, and must not call the facade's initialisation.
class GlobalCallback {
 public:
  virtual ~GlobalCallback() = default;
  // A detection has found another proxy than the last one in use. `proxy` is valid during the call.
  virtual void onUsingProxyChange(const ProxyInfo& proxy) = 0;
};

}  // namespace commonutil
