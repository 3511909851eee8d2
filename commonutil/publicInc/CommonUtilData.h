// The records that callers hand to the facade. Texts are fixed arrays, NUL-terminated UTF-8.
#pragma once

#include <cstdint>
#include <string>

#include "proxy/ProxyInfo.h"

namespace commonutil {

struct tagZelUtilInitParam {
  char logPath[512];
  std::int32_t logLevel;  // 0 error to 3 debug
  std::int32_t logSize;   // of one log file, in KB
  std::int32_t fileCount;
  char dbPath[512];
};
using ZelUtilInitParam = tagZelUtilInitParam;

// The library's own copy.
struct UtilInitParam {
  UtilInitParam() = default;
  explicit UtilInitParam(const tagZelUtilInitParam& param);

  std::string logPath;
  std::int32_t logLevel = 0;
  std::int32_t logSize = 0;
  std::int32_t fileCount = 0;
  std::string dbPath;
};

struct tagZelUtilProxyInfo {
  char server[256];
  std::uint32_t port;
  char userName[128];
  char password[128];
};

// What the conference terminal reports of itself. The first four are also kept by conference
// control: uuid and account up to 128 characters there, the two addresses up to 127.
struct tagZelUtilPublicSdkParam {
  char uuid[256];
  char account[256];
  char gantryIp[256];
  char sbcIp[256];
  char further[6][256];  // for the tracking library only
};

struct tagZelUtilsSmartRoomParam {
  char room[32];
};

// What the user of the facade is told without asking. Calls come on the threads of the
// events, and must not call the facade's initialisation.
class GlobalCallback {
 public:
  virtual ~GlobalCallback() = default;
  virtual void onUsingProxyChange(const ProxyInfo& proxy) = 0;
};

}  // namespace commonutil
