#include "prax/prax_ref.h"

#include <array>
#include <mutex>
#include <utility>

#include "prax/prax_internal.h"

namespace {

struct PlannedFault {
  unsigned int skip = 0;
  unsigned int count = 0;
  int error = 0;
};

struct Plan {
  std::array<PlannedFault, PRAX_REF_CALLS> faults;
  std::function<void(unsigned int)> sleepHook;
  std::function<unsigned long long()> clock;
  long long clockOffsetMs = 0;

  bool IsEmpty() const {
    for (const PlannedFault& fault : faults) {
      if (fault.count != 0) return false;
    }
    return !sleepHook && !clock && clockOffsetMs == 0;
  }
};

// Hooks are copied out and called without the lock.
struct Seams {
  std::mutex lock;
  Plan plan;
};

Seams& TheSeams() {
  static Seams* const instance = new Seams;
  return *instance;
}

template <class Change>
void ChangePlan(Change change) {
  Seams& seams = TheSeams();
  const std::lock_guard<std::mutex> hold(seams.lock);
  change(seams.plan);
  prax::seamsSet.store(!seams.plan.IsEmpty(), std::memory_order_relaxed);
}

}  // namespace

namespace prax {

int TakeFault(PRAX_Ref_Call call) {
  int error = 0;
  ChangePlan([&](Plan& plan) {
    PlannedFault& fault = plan.faults[call];
    if (fault.count == 0) return;
    if (fault.skip != 0) {
      --fault.skip;
      return;
    }
    --fault.count;
    error = fault.error;
  });
  return error;
}

bool SleepInHook(unsigned int ms) {
  if (!seamsSet.load(std::memory_order_relaxed)) return false;
  std::function<void(unsigned int)> hook;
  ChangePlan([&](Plan& plan) { hook = plan.sleepHook; });
  if (!hook) return false;
  hook(ms);
  return true;
}

unsigned long long ClockReading(unsigned long long systemMs) {
  if (!seamsSet.load(std::memory_order_relaxed)) return systemMs;
  std::function<unsigned long long()> clock;
  long long offsetMs = 0;
  ChangePlan([&](Plan& plan) {
    clock = plan.clock;
    offsetMs = plan.clockOffsetMs;
  });
  return (clock ? clock() : systemMs) + static_cast<unsigned long long>(offsetMs);
}

}  // namespace prax

void PRAX_Ref_FailNext(PRAX_Ref_Call call, unsigned int count, int error, unsigned int skip) {
  ChangePlan([&](Plan& plan) { plan.faults[call] = {skip, count, error}; });
}

// The replaced functions are destroyed after the lock: their captures may be anything.
void PRAX_Ref_SetSleepHook(std::function<void(unsigned int)> hook) {
  ChangePlan([&](Plan& plan) { plan.sleepHook.swap(hook); });
}

void PRAX_Ref_SetClock(std::function<unsigned long long()> clock) {
  ChangePlan([&](Plan& plan) { plan.clock.swap(clock); });
}

void PRAX_Ref_SetClockOffset(long long ms) {
  ChangePlan([&](Plan& plan) { plan.clockOffsetMs = ms; });
}

void PRAX_Ref_Reset() {
  Plan empty;
  ChangePlan([&](Plan& plan) { std::swap(plan, empty); });
  PRAX_TimerRegDebugTrace(nullptr);
  PRAX_OS_RegDebugTrace(nullptr);
}
