#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <type_traits>

#include "prax/prax_internal.h"

namespace {

static_assert(std::is_same_v<PRAX_THREAD, pthread_t>, "a handle is passed on as it is");

constexpr std::size_t kThreadNameSize = 16;  // of the kernel, with the NUL
constexpr unsigned int kMsPerSecond = 1000;
constexpr long kNsPerMs = 1000000;

void TraceStartFailure(int error) {
  char text[48];
  if (::snprintf(text, sizeof(text), "thread start failed, error %d", error) < 0) return;
  PRAX_Ref_EmitOsTrace(PRAX_OS_LOG_3, text);
}

int StartThread(pthread_t& thread, const pthread_attr_t* attr, PRAX_ThreadEntry entry, void* arg) {
  const int fault = prax::Fault(PRAX_REF_THREAD_CREATE);
  return fault != 0 ? fault : ::pthread_create(&thread, attr, entry, arg);
}

}  // namespace

int PRAX_PthreadCreate(PRAX_THREAD* out, const void* attr, PRAX_ThreadEntry entry, void* arg) {
  if (out == nullptr) return EINVAL;
  *out = 0;
  if (entry == nullptr) return EINVAL;
  // A failed start may leave anything in the handle it was given.
  pthread_t thread{};
  const int error = StartThread(thread, static_cast<const pthread_attr_t*>(attr), entry, arg);
  if (error != 0) {
    TraceStartFailure(error);
    return error;
  }
  *out = thread;
  return 0;
}

// The C library does not test for 0 and reads through the handle.
int PRAX_PthreadJoin(PRAX_THREAD thread, void** result) {
  if (thread == 0) return ESRCH;
  if (::pthread_equal(thread, ::pthread_self())) return EDEADLK;
  return ::pthread_join(thread, result);
}

int PRAX_PthreadDetach(PRAX_THREAD thread) {
  return thread == 0 ? ESRCH : ::pthread_detach(thread);
}

PRAX_THREAD PRAX_PthreadSelf(void) { return ::pthread_self(); }

int PRAX_PthreadSetName(const char* name) {
  const char* const whole = prax::TextOf(name);
  char cut[kThreadNameSize] = {};
  ::memcpy(cut, whole, ::strnlen(whole, sizeof(cut) - 1));
  return ::pthread_setname_np(::pthread_self(), cut);
}

unsigned long PRAX_GetTID(void) { return static_cast<unsigned long>(::gettid()); }

void PRAX_SleepMs(unsigned int ms) {
  if (prax::SleepInHook(ms)) return;
  timespec left{ms / kMsPerSecond, static_cast<long>(ms % kMsPerSecond) * kNsPerMs};
  while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
  }
}

unsigned long long PRAX_GetSystemTime(void) {
  timespec now{};
  if (::clock_gettime(CLOCK_REALTIME, &now) != 0) return prax::ClockReading(0);
  return prax::ClockReading(static_cast<unsigned long long>(now.tv_sec) * kMsPerSecond +
                            static_cast<unsigned long long>(now.tv_nsec / kNsPerMs));
}

int PRAX_MutexInitRecursive(PRAX_MUTEX* mutex) {
  if (mutex == nullptr) return EINVAL;
  pthread_mutexattr_t attributes;
  int error = ::pthread_mutexattr_init(&attributes);
  if (error != 0) return error;
  error = ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  if (error == 0) error = ::pthread_mutex_init(mutex, &attributes);
  (void)::pthread_mutexattr_destroy(&attributes);  // fails only for what was never set up
  return error;
}

int PRAX_MutexLock(PRAX_MUTEX* mutex) {
  return mutex == nullptr ? EINVAL : ::pthread_mutex_lock(mutex);
}

int PRAX_MutexUnLock(PRAX_MUTEX* mutex) {
  return mutex == nullptr ? EINVAL : ::pthread_mutex_unlock(mutex);
}

int PRAX_MutexDestroy(PRAX_MUTEX* mutex) {
  return mutex == nullptr ? EINVAL : ::pthread_mutex_destroy(mutex);
}

int PRAX_SemInit(PRAX_SEM* sem, unsigned int count) {
  if (sem == nullptr) return EINVAL;
  return ::sem_init(sem, 0, count) == 0 ? 0 : errno;
}

int PRAX_SemWait(PRAX_SEM* sem) {
  if (sem == nullptr) return EINVAL;
  return prax::Retried([&] { return ::sem_wait(sem); }) == 0 ? 0 : errno;
}

int PRAX_SemPost(PRAX_SEM* sem) {
  if (sem == nullptr) return EINVAL;
  return ::sem_post(sem) == 0 ? 0 : errno;
}
