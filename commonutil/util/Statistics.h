// Counters of what the library has done since it was loaded. Any thread; a count may be seen a
// moment late.
#pragma once

#include <atomic>
#include <cstdint>

namespace commonutil {

enum class Counter {
  kCommandsPushed,
  kCommandsRun,
  kCommandsSlow,
  kDatabaseOperations,
  kDatabaseFailures,
  kProxyProbes,
  kProxyProbesThrough,
  kTrackingEvents,
  kTrackingRefusals,
  kCounters  // their number
};

// On a cache line of its own: threads that count different things do not wait for each other.
struct alignas(64) CounterValue {
  std::atomic<std::uint64_t> value{0};
};

class Statistics {
 public:
  static void Count(Counter counter) {
    m_values[static_cast<int>(counter)].value.fetch_add(1, std::memory_order_relaxed);
  }
  // Of what was counted before it failed.
  static void TakeBack(Counter counter) {
    m_values[static_cast<int>(counter)].value.fetch_sub(1, std::memory_order_relaxed);
  }
  static std::uint64_t Read(Counter counter) {
    return m_values[static_cast<int>(counter)].value.load(std::memory_order_relaxed);
  }

 private:
  inline static CounterValue m_values[static_cast<int>(Counter::kCounters)];
};

}  // namespace commonutil
