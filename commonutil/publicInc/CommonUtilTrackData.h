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
  char eventId[16];    // what happened
  char arg1[256];      // first argument
  char arg2[256];      // second argument
  char arg3[256];      // third argument
  char args[8192];     // further arguments, JSON text by custom
  std::int32_t param;  // see above
};

// What all events have in common. cpu and osVersion reach the tracking library only when they fit
// into 63 and 31 bytes; tenantId, channelId and gpu never do.
struct tagZelUtilPublicParam {
  char version[16];        // of the client
  char deviceId[128];      // GUID of the device
  char brand[64];          // maker of the device
  char deviceModel[64];    // model of the device
  char cpu[256];           // processor
  char resolution[32];     // of the screen
  char appId[64];          // application
  char language[16];       // of the user interface
  char osName[16];         // operating system
  char osVersion[256];     // its version
  char carrier[32];        // network operator
  char access[16];         // kind of network
  char accessSubtype[16];  // the kind in more detail
  char tenantId[128];      // tenant
  char channelId[128];     // distribution channel
  char gpu[256];           // graphics processor
};

// `uploadSwitch` 0: no consent, the tracking library keeps and sends nothing.
struct tagZelUtilCustomParam {
  std::int32_t uploadSwitch;  // 0: no consent
  std::int32_t reserved[2];   // passed on as they are
};

// A measurement of the machine.
struct tagZelCpuAndMemoryParam {
  std::int32_t values[3];  // as the caller measures
  char text[256];          // with the values
};

// Defined by the tracking library in use, to which it is passed as it is.
struct tagZelSubEventParam;

// An owned tagZelUtilCustomParam.
struct UTCustomParam {
  UTCustomParam() = default;
  explicit UTCustomParam(std::int32_t first) : values{first, 0, 0} {}  // the rest is 0
  // All three.
  UTCustomParam(std::int32_t first, std::int32_t second, std::int32_t third)
      : values{first, second, third} {}

  std::int32_t values[3] = {0, 0, 0};  // uploadSwitch first
};

// Holds a token and a password: both are wiped when the object goes.
class ZEL_API UTUpLoadParam {
 public:
  // Keeps what it is given; ports in host order, `tlsMode` as the upload library counts it.
  UTUpLoadParam(std::string account, std::string token, int serverPentraPort,
                std::string serverPentraAddress, std::string caCertPath, int tlsMode, int proxyPort,
                std::string proxyAddress, std::string proxyAccount, std::string proxyPassword);
  ~UTUpLoadParam();
  UTUpLoadParam(const UTUpLoadParam&) = default;             // copies the secrets too
  UTUpLoadParam& operator=(const UTUpLoadParam&) = default;  // the same

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

// An owned tagZelUtilPublicParam, as far as the tracking library takes it.
struct UTContextPublicParam {
  // In the order of the members.
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

  std::string version;        // of the client
  std::string deviceId;       // GUID of the device
  std::string brand;          // maker of the device
  std::string deviceModel;    // model of the device
  std::string cpu;            // processor
  std::string resolution;     // of the screen
  std::string appId;          // application
  std::string language;       // of the user interface
  std::string osName;         // operating system
  std::string osVersion;      // its version
  std::string carrier;        // network operator
  std::string access;         // kind of network
  std::string accessSubtype;  // the kind in more detail
};

// The public context as one text.
struct UTTanloContextPublicParam {
  explicit UTTanloContextPublicParam(std::string text_) : text(std::move(text_)) {}  // keeps it

  std::string text;  // as given
};

// The SDK's parameters as the tracking library takes them.
class ZEL_API UTPublicSdkParam {
 public:
  // In the order of the texts.
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

// An owned tagZelUtilSpecialParam, without its number.
struct UTContextSpecialParam {
  // In the order of the members.
  UTContextSpecialParam(std::string eventId_, std::string arg1_, std::string arg2_,
                        std::string arg3_, std::string args_)
      : eventId(std::move(eventId_)),
        arg1(std::move(arg1_)),
        arg2(std::move(arg2_)),
        arg3(std::move(arg3_)),
        args(std::move(args_)) {}

  std::string eventId;  // what happened
  std::string arg1;     // first argument
  std::string arg2;     // second argument
  std::string arg3;     // third argument
  std::string args;     // further arguments, JSON text by custom
};

}  // namespace commonutil
