// std::mutex and std::recursive_mutex with the annotations that clang's thread-safety
// analysis needs. Lock through MutexLock; lock() and unlock() are there for
// std::condition_variable_any and the like.
#pragma once

#include <mutex>

#include "util/ThreadAnnotations.h"

namespace commonutil {

// A mutex of the standard library with annotations.
template <class Native>
class ZEL_CAPABILITY("mutex") BasicMutex {
 public:
  BasicMutex() = default;
  BasicMutex(const BasicMutex&) = delete;
  BasicMutex& operator=(const BasicMutex&) = delete;

  void lock() ZEL_ACQUIRE() { m_native.lock(); }      // waits
  void unlock() ZEL_RELEASE() { m_native.unlock(); }  // by the holder

  // For a std::condition_variable, which waits on the native mutex only.
  Native& native() { return m_native; }

 private:
  Native m_native;
};

using Mutex = BasicMutex<std::mutex>;                     // not recursive
using RecursiveMutex = BasicMutex<std::recursive_mutex>;  // its holder may lock again

// Holds a mutex for its own lifetime.
template <class Native>
class ZEL_SCOPED_CAPABILITY BasicMutexLock {
 public:
  // Locks `mutex`, which outlives this.
  explicit BasicMutexLock(BasicMutex<Native>& mutex) ZEL_ACQUIRE(mutex) : m_mutex(mutex) {
    m_mutex.lock();
  }
  ~BasicMutexLock() ZEL_RELEASE() { m_mutex.unlock(); }
  BasicMutexLock(const BasicMutexLock&) = delete;
  BasicMutexLock& operator=(const BasicMutexLock&) = delete;

 private:
  BasicMutex<Native>& m_mutex;
};

using MutexLock = BasicMutexLock<std::mutex>;                     // of a Mutex
using RecursiveMutexLock = BasicMutexLock<std::recursive_mutex>;  // of a RecursiveMutex

}  // namespace commonutil
