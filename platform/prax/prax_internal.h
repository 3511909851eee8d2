// What the sources of this library share and nobody else includes.
#pragma once

#include <errno.h>

#include <atomic>

#include "prax/descriptor.h"
#include "prax/prax_ref.h"

namespace prax {

// Whether any seam is set. Relaxed: what is set lies behind a lock.
inline std::atomic<bool> seamsSet{false};

// errno of the last failed call of this thread. Kept apart from errno, which whatever the
// caller does before it asks may overwrite.
inline thread_local int lastError = 0;

int TakeFault(PRAX_Ref_Call call);
bool SleepInHook(unsigned int ms);
unsigned long long ClockReading(unsigned long long systemMs);

// The error this call is to fail with, or 0.
inline int Fault(PRAX_Ref_Call call) {
  return seamsSet.load(std::memory_order_relaxed) ? TakeFault(call) : 0;
}

inline int Fail(int error) {
  errno = error;
  lastError = error;
  return -1;
}

// Passes the result of a system call on; keeps its error.
inline int Kept(int result) {
  if (result == -1) lastError = errno;
  return result;
}

inline const char* TextOf(const char* text) { return text == nullptr ? "" : text; }

}  // namespace prax
