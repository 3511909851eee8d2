// The records of user tracking, as callers fill them, and owned copies of them. The texts of a
// record are fixed arrays of NUL-terminated UTF-8.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "publicInc/ZelExport.h"

namespace commonutil {

// One event. `param` has a meaning for UTFinishEvent only.
struct tagZelUtilSpecialParam {
  char eventId[16];
  char arg1[256];
  char arg2[256];
  char arg3[256];
  char args[8192];
  std::int32_t param;
};

// What all events have in common. cpu and osVersion reach the tracking library only when they fit
// into 63 and 31 bytes; tenantId, channelId and gpu never do.
struct tagZelUtilPublicParam {
  char version[16];
  char deviceId[128];
  char brand[64];
  char deviceModel[64];
  char cpu[256];
  char resolution[32];
  char appId[64];
  char language[16];
  char osName[16];
  char osVersion[256];
  char carrier[32];
  char access[16];
  char accessSubtype[16];
  char tenantId[128];
  char channelId[128];
  char gpu[256];
};

// `uploadSwitch` 0: no consent, the tracking library keeps and sends nothing.
struct tagZelUtilCustomParam {
  std::int32_t uploadSwitch;
  std::int32_t reserved[2];
};

struct tagZelCpuAndMemoryParam {
  std::int32_t values[3];
  char text[256];
};

// Defined by the tracking library in use, to which it is passed as it is.
struct tagZelSubEventParam;

struct UTCustomParam {
  UTCustomParam() = default;
  explicit UTCustomParam(std::int32_t first) : values{first, 0, 0} {}
  UTCustomParam(std::int32_t first, std::int32_t second, std::int32_t third)
      : values{first, second, third} {}

  std::int32_t values[3] = {0, 0, 0};
};

// Holds a token and a password: both are wiped when the object goes.
class ZEL_API UTUpLoadParam {
 public:
  UTUpLoadParam(std::string account, std::string token, int serverPentraPort,
                std::string serverPentraAddress, std::string caCertPath, int tlsMode, int proxyPort,
                std::string proxyAddress, std::string proxyAccount, std::string proxyPassword);
  ~UTUpLoadParam();
  UTUpLoadParam(const UTUpLoadParam&) = default;
  UTUpLoadParam& operator=(const UTUpLoadParam&) = default;

  // One line at info level, without the token and the password.
  void ToInfoLog() const;

 private:
  std::string m_account;
  std::string m_token;
  int m_serverPentraPort;
  std::string m_serverPentraAddress;
  std::string m_caCertPath;
  int m_tlsMode;
  int m_proxyPort;
  std::string m_proxyAddress;
  std::string m_proxyAccount;
  std::string m_proxyPassword;
};

struct UTContextPublicParam {
  UTContextPublicParam(std::string version_, std::string deviceId_, std::string brand_,
                       std::string deviceModel_, std::string cpu_, std::string resolution_,
                       std::string appId_, std::string language_, std::string osName_,
                       std::string osVersion_, std::string carrier_, std::string access_,
                       std::string accessSubtype_)
      : version(std::move(version_)),
        deviceId(std::move(deviceId_)),
        brand(std::move(brand_)),
        deviceModel(std::move(deviceModel_)),
        cpu(std::move(cpu_)),
        resolution(std::move(resolution_)),
        appId(std::move(appId_)),
        language(std::move(language_)),
        osName(std::move(osName_)),
        osVersion(std::move(osVersion_)),
        carrier(std::move(carrier_)),
        access(std::move(access_)),
        accessSubtype(std::move(accessSubtype_)) {}

  std::string version, deviceId, brand, deviceModel, cpu, resolution, appId, language, osName,
      osVersion, carrier, access, accessSubtype;
};

struct UTTanloContextPublicParam {
  explicit UTTanloContextPublicParam(std::string text_) : text(std::move(text_)) {}

  std::string text;
};

class ZEL_API UTPublicSdkParam {
 public:
  UTPublicSdkParam(std::string uuid, std::string account, std::string gantryIp, std::string sbcIp,
                   std::string text5, std::string text6, std::string text7, std::string text8,
                   std::string text9, std::string text10);

  // One line at info level with the first four texts.
  void ToInfoLog() const;
  // `index` 0 to 9, in the order of the constructor.
  const std::string& Text(int index) const { return m_texts[index]; }

 private:
  std::string m_texts[10];
};

struct UTContextSpecialParam {
  UTContextSpecialParam(std::string eventId_, std::string arg1_, std::string arg2_,
                        std::string arg3_, std::string args_)
      : eventId(std::move(eventId_)),
        arg1(std::move(arg1_)),
        arg2(std::move(arg2_)),
        arg3(std::move(arg3_)),
        args(std::move(args_)) {}

  std::string eventId, arg1, arg2, arg3, args;
};

}  // namespace commonutil
