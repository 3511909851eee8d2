// Network detection is not available in this build of the reference platform: its functions
// answer non-zero, keep nothing and report nothing. Address classes are real.
#include "zel_platform/nettools.h"

#include <arpa/inet.h>

namespace {

constexpr int kNotAvailable = 1;

struct Network {
  std::uint32_t address;  // host byte order
  int bits;
};

constexpr Network kNotPublic[] = {
    {0x00000000, 8},   // 0/8
    {0x0A000000, 8},   // 10/8
    {0x64400000, 10},  // 100.64/10
    {0x7F000000, 8},   // 127/8
    {0xA9FE0000, 16},  // 169.254/16
    {0xAC100000, 12},  // 172.16/12
    {0xC0A80000, 16},  // 192.168/16
    {0xE0000000, 3},   // 224/3, with the invalid 0xFFFFFFFF
};

}  // namespace

int orb_net_detect(int /*sno*/, void (*)(const tagNET_DETECT_PROCESS_RESULT*)) {
  return kNotAvailable;
}

int orb_net_detect_jni(int /*type*/, void (*)(tagNET_DETECT_PROCESS_RESULT&), void* /*callback*/) {
  return kNotAvailable;
}

int orb_set_net_detect_srvs(const tagNET_DETECT_SRV* /*servers*/, unsigned int /*count*/) {
  return kNotAvailable;
}

int GetNetDetectIps(std::vector<std::string>& /*list*/, bool /*flag*/) { return kNotAvailable; }

bool orb_is_public_ipv4(unsigned int address) {
  const std::uint32_t value = ::ntohl(address);
  for (const Network& network : kNotPublic) {
    if ((value ^ network.address) >> (32 - network.bits) == 0) return false;
  }
  return true;
}

int orb_set_local_addr_str(const char* /*first*/, const char* /*second*/) { return kNotAvailable; }
