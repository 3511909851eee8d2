// This library starts threads but runs no timers: the timer trace is registered and
// reaches its receiver through the test seam only.
#include <atomic>

#include "prax/prax_internal.h"

namespace {

using TimerTrace = void (*)(_PRAX_E_TimerLogLv, const char*);
using OsTrace = void (*)(_PRAX_OS_LOG_LEVEL, const char*);

std::atomic<TimerTrace> timerTrace{nullptr};
std::atomic<OsTrace> osTrace{nullptr};

}  // namespace

void PRAX_TimerRegDebugTrace(TimerTrace trace) { timerTrace.store(trace); }

void PRAX_OS_RegDebugTrace(OsTrace trace) { osTrace.store(trace); }

void PRAX_Ref_EmitTimerTrace(_PRAX_E_TimerLogLv level, const char* text) {
  const TimerTrace trace = timerTrace.load();
  if (trace != nullptr) trace(level, prax::TextOf(text));
}

void PRAX_Ref_EmitOsTrace(_PRAX_OS_LOG_LEVEL level, const char* text) {
  const OsTrace trace = osTrace.load();
  if (trace != nullptr) trace(level, prax::TextOf(text));
}
