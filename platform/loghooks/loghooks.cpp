#include "zel_platform/loghooks.h"

#include <atomic>

#include "loghooks/loghooks_ref.h"

namespace {

using LogFunction = void (*)(const char* text);

constexpr int kErrorsOnly = 3;

std::atomic<LogFunction> dnsLog{nullptr};
std::atomic<LogFunction> websocketLog{nullptr};
std::atomic<int> dnsLevel{kErrorsOnly};

void Emit(LogFunction log, const char* text) {
  if (log != nullptr) log(text == nullptr ? "" : text);
}

}  // namespace

void orb_dns_register_log_func(LogFunction log) { dnsLog.store(log); }

void orb_dns_set_log_level(int level) { dnsLevel.store(level); }

void orb_websocket_reg_log_fn(LogFunction log) { websocketLog.store(log); }

void orb_loghooks_ref_emit_dns(int level, const char* text) {
  if (level <= dnsLevel.load()) Emit(dnsLog.load(), text);
}

void orb_loghooks_ref_emit_websocket(const char* text) { Emit(websocketLog.load(), text); }
