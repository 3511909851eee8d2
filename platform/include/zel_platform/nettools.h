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
  std::int32_t sno;           // as given; the type for orb_net_detect_jni
  std::int32_t currentLevel;  // the server's place among those measured, from 1
  std::int32_t totalLevel;    // their number
  std::int32_t result;        // 0 when one answer came
  std::int32_t averageDelay;  // ms
  std::int32_t maxDelay;      // ms
  std::int32_t minDelay;      // ms
  std::int32_t discard;       // percent of the requests without an answer
  void* callback;             // as given to orb_net_detect_jni; null for orb_net_detect
};

// A server to measure. An empty domain is skipped.
struct tagNET_DETECT_SRV {
  char domain[256];   // host name or address, optional port
  std::int32_t mode;  // 0 plain, 2 over TLS
};

// One port that was tried.
struct tagPORT_DETECT_ITEM {
  std::uint32_t port;        // its number
  std::uint8_t type;         // of the transport
  std::uint8_t result;       // as the network tools give it
  std::uint8_t reserved[2];  // zero
};

// What a detection of ports found.
struct tagPORT_DETECT_RESULT {
  std::int32_t sno;                        // as given
  std::vector<tagPORT_DETECT_ITEM> ports;  // in the order tried
};

// One way through a firewall that was tried.
struct tagFW_MULTI_DETECT_INFO {
  std::uint8_t result;  // 0: failed
  std::uint16_t port;   // its port
  std::uint32_t type;   // 0 to 4
  std::string address;  // host or address
};

// The place of a site among those compared for bandwidth.
struct tagBW_MULTI_SITE_DETECT_RESULT {
  std::uint16_t siteIndex;  // as asked
  std::int32_t rank;        // 1 is the best
};

// One site among those compared for delay.
struct tagOPT_MULTI_DETECT_INFO {
  std::string siteName;    // of the site
  std::string nodeName;    // of the node measured
  std::string ip;          // of the node
  std::int32_t port;       // of the node
  std::int32_t delayBase;  // ms, to compare with
  std::int32_t delay;      // ms
  std::int32_t discard;    // percent
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
// The addresses to measure from; a text may be empty. 0 when they were taken.
ZEL_PLATFORM_API int orb_set_local_addr_str(const char* first, const char* second);
