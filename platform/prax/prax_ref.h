// Seam of the reference operating-system layer for tests; the product never includes it.
//
// Any thread may call any function. While nothing is set, the layer pays one relaxed
// atomic load per call that a seam can reach.
#pragma once

#include <functional>

#include "zel_platform/platform_export.h"
#include "zel_platform/prax.h"

// The calls that can be made to fail.
enum PRAX_Ref_Call {
  PRAX_REF_THREAD_CREATE,  // PRAX_PthreadCreate returns the error
  PRAX_REF_MALLOC,         // PRAX_MemMallocS returns null
  PRAX_REF_CHMOD,          // -1 here and below; the error is errno and PRAX_GetLastErr
  PRAX_REF_REMOVE,
  PRAX_REF_FOPEN,  // PRAX_Fopen returns null
  PRAX_REF_REPLACE_FILE,
  PRAX_REF_CALLS  // their number
};

// After `skip` more calls of this kind have done their work, the next `count` do nothing and
// fail with `error`, an errno value other than 0. A count of 0 ends the faults of the call.
ZEL_PLATFORM_API void PRAX_Ref_FailNext(PRAX_Ref_Call call, unsigned int count, int error,
                                        unsigned int skip = 0);
// Called with the milliseconds instead of sleeping, on the thread that would sleep and
// with no lock held. An empty function: sleep again.
ZEL_PLATFORM_API void PRAX_Ref_SetSleepHook(std::function<void(unsigned int)> hook);
// Asked for the milliseconds since the epoch instead of the system's clock, with no lock
// held. An empty function: the system's clock again.
ZEL_PLATFORM_API void PRAX_Ref_SetClock(std::function<unsigned long long()> clock);
// Added to whichever clock is in use.
ZEL_PLATFORM_API void PRAX_Ref_SetClockOffset(long long ms);

// Hand a text to the registered trace, on this thread; nothing without one. Null is "".
ZEL_PLATFORM_API void PRAX_Ref_EmitTimerTrace(_PRAX_E_TimerLogLv level, const char* text);
ZEL_PLATFORM_API void PRAX_Ref_EmitOsTrace(_PRAX_OS_LOG_LEVEL level, const char* text);

// Ends every fault and hook and unregisters both traces. A hook or trace already under way
// on another thread may outlast this.
ZEL_PLATFORM_API void PRAX_Ref_Reset();
