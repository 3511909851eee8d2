// Network detection. Any thread may call; results arrive on this library's own threads,
// with no lock held, and a record is valid during its call only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zel_platform/platform_export.h"

// Delays in milliseconds, `discard` in percent of the packets sent.
struct tagNET_DETECT_PROCESS_RESULT {
  std::int32_t sno, currentLevel, totalLevel, result, averageDelay, maxDelay, minDelay, discard;
  void* callback;  // as given to orb_net_detect_jni; null for orb_net_detect
};

struct tagNET_DETECT_SRV {
  char domain[256];   // host name or address, optional port
  std::int32_t mode;  // 0 plain, 2 over TLS
};

struct tagPORT_DETECT_ITEM {
  std::uint32_t port;
  std::uint8_t type;
  std::uint8_t result;
  std::uint8_t reserved[2];
};

struct tagPORT_DETECT_RESULT {
  std::int32_t sno;
  std::vector<tagPORT_DETECT_ITEM> ports;
};

struct tagFW_MULTI_DETECT_INFO {
  std::uint8_t result;  // 0: failed
  std::uint16_t port;
  std::uint32_t type;  // 0 to 4
  std::string address;
};

struct tagBW_MULTI_SITE_DETECT_RESULT {
  std::uint16_t siteIndex;
  std::int32_t rank;
};

struct tagOPT_MULTI_DETECT_INFO {
  std::string siteName, nodeName, ip;
  std::int32_t port, delayBase, delay, discard;
};

static_assert(offsetof(tagPORT_DETECT_ITEM, result) == 5, "layout is part of the contract");
static_assert(offsetof(tagNET_DETECT_PROCESS_RESULT, callback) == 32,
              "layout is part of the contract");

// Starts a detection and returns at once: 0 started, non-zero without servers or while one
// runs. `sno` is echoed in every record.
ZEL_PLATFORM_API int orb_net_detect(int sno, void (*onResult)(const tagNET_DETECT_PROCESS_RESULT*));
// The same with a caller's object, which comes back in the record and must outlive the run.
ZEL_PLATFORM_API int orb_net_detect_jni(int type, void (*onResult)(tagNET_DETECT_PROCESS_RESULT&),
                                        void* callback);
// Copies the servers of the next detection; `count` is 4.
ZEL_PLATFORM_API int orb_set_net_detect_srvs(const tagNET_DETECT_SRV* servers, unsigned int count);
// The detection addresses known to the platform: 0 with a list, of which the entries 2 to 5
// are internet, middle, media and SBC; non-zero when none are known.
ZEL_PLATFORM_API int GetNetDetectIps(std::vector<std::string>& list, bool flag);
// `address` in network byte order. False for 0/8, 10/8, 100.64/10, 127/8, 169.254/16,
// 172.16/12, 192.168/16, 224/3 and 0xFFFFFFFF.
ZEL_PLATFORM_API bool orb_is_public_ipv4(unsigned int address);
ZEL_PLATFORM_API int orb_set_local_addr_str(const char* first, const char* second);
