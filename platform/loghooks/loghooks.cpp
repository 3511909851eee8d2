#include "zel_platform/loghooks.h"

#include <atomic>

#include "loghooks/dns_log.h"

namespace {

std::atomic<void (*)(const char* text)> dnsLog{nullptr};
std::atomic<int> dnsLevel{kDnsError};

}  // namespace

void orb_dns_register_log_func(void (*log)(const char* text)) { dnsLog.store(log); }

void orb_dns_set_log_level(int level) { dnsLevel.store(level); }

// There is no web-socket library here that could tell anything.
void orb_websocket_reg_log_fn(void (*)(const char* text)) {}

void TellDnsLog(int level, const char* text) {
  const auto log = dnsLog.load();
  if (log != nullptr && level <= dnsLevel.load()) log(text);
}
