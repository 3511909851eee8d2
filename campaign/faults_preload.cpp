// Calls of libc that fail, or end the process, at a chosen one of them.
//
// ZEL_FAULTS is "kind mode number errno". Counted are the calls of the kind, or of every kind but
// alloc for "any", between zel_faults_arm(1) and zel_faults_arm(0), on all threads. Modes: "once"
// fails the call of that number, "from" that one and all later ones, "kill" ends the process
// before it, "torn" after half of what it writes, "list" fails none and keeps their numbers, of
// the allocations the first of each place, told by the innermost callers. Sleeps are cut short, so
// that retries do not take their time. A call that libc makes itself is not seen.
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#pragma GCC visibility push(default)

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
}

namespace {

constexpr long kSleepDivisor = 50;
constexpr int kCallers = 10;
constexpr int kFatalCallers = 40;
constexpr size_t kPlaces = 65536;  // a power of 2, and many more than there are

char g_kind[16];
char g_mode[16];
long g_number;
int g_errno;
std::atomic<bool> g_armed{false};
std::atomic<long> g_calls{0};
std::atomic<bool> g_fired{false};
std::atomic<uint64_t> g_places[kPlaces];  // hashes of those seen
std::atomic<long> g_placeCalls[kPlaces];  // the first call of each, in their order
std::atomic<size_t> g_placeCount{0};
__attribute__((tls_model("initial-exec"))) thread_local bool g_looking;  // the unwinder allocates

// Says where on standard error, then lets the signal do what it does.
void OnFatal(int number) {
  g_armed.store(false);
  void* callers[kFatalCallers];
  backtrace_symbols_fd(callers, backtrace(callers, kFatalCallers), STDERR_FILENO);
  (void)signal(number, SIG_DFL);
  (void)raise(number);
}

__attribute__((constructor)) void ReadSettings() {
  void* caller[1];
  (void)backtrace(caller, 1);  // loads the unwinder, which allocates
  (void)signal(SIGABRT, OnFatal);
  (void)signal(SIGSEGV, OnFatal);
  const char* const text = getenv("ZEL_FAULTS");
  if (text == nullptr ||
      sscanf(text, "%15s %15s %ld %d", g_kind, g_mode, &g_number, &g_errno) < 4) {
    g_number = 0;
  }
}

bool IsKind(const char* kind, const char* wanted) { return strcmp(kind, wanted) == 0; }
bool IsMode(const char* mode) { return strcmp(g_mode, mode) == 0; }

[[noreturn]] void Die() {
  for (;;) (void)kill(getpid(), SIGKILL);
}

uint64_t PlaceOfCall() {
  void* callers[kCallers];
  g_looking = true;
  const int count = backtrace(callers, kCallers);
  g_looking = false;
  uint64_t hash = 1;
  for (int i = 0; i < count; ++i) {
    hash = (hash ^ reinterpret_cast<uintptr_t>(callers[i])) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 29;
  }
  return hash | 1;
}

void KeepCall(long call, uint64_t place) {
  for (size_t i = place >> 20;; ++i) {
    uint64_t found = 0;
    if (g_places[i % kPlaces].compare_exchange_strong(found, place)) break;
    if (found == place) return;
  }
  g_placeCalls[g_placeCount.fetch_add(1) % kPlaces].store(call);
}

bool Counts(const char* kind) {
  if (g_number == 0 || !g_armed.load(std::memory_order_relaxed) || g_looking) return false;
  return IsKind(g_kind, kind) || (IsKind(g_kind, "any") && !IsKind(kind, "alloc"));
}

// True when this call is to fail. `torn`, where it can be, is set instead of ending the process.
bool Fails(const char* kind, bool* torn = nullptr) {
  if (!Counts(kind)) return false;
  const long call = g_calls.fetch_add(1) + 1;
  if (IsMode("list")) {
    KeepCall(call, IsKind(kind, "alloc") ? PlaceOfCall() : static_cast<uint64_t>(call));
    return false;
  }
  if (call < g_number || (call > g_number && !IsMode("from"))) return false;
  g_fired.store(true);
  if (IsMode("torn") && torn != nullptr) {
    *torn = true;
    return false;
  }
  if (IsMode("kill") || IsMode("torn")) Die();
  errno = g_errno;
  return true;
}

template <class F>
F* Next(F* /*type*/, const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

// Runs libc's own `name` unless the call is to fail.
template <class Result, class F, class... Args>
Result Call(const char* kind, Result failed, F* self, const char* name, Args... args) {
  if (Fails(kind)) return failed;
  return Next(self, name)(args...);
}

ssize_t Write(int file, const void* data, size_t size, const off64_t* place) {
  bool torn = false;
  if (file > 2 && Fails("write", &torn)) return -1;
  const size_t length = torn ? size / 2 : size;
  const long written = place != nullptr ? syscall(SYS_pwrite64, file, data, length, *place)
                                        : syscall(SYS_write, file, data, length);
  if (torn) Die();
  return written;
}

int Open(int directory, const char* path, int flags, mode_t mode) {
  if (Fails("open")) return -1;
  return static_cast<int>(syscall(SYS_openat, directory, path, flags, mode));
}

mode_t ModeOf(int flags, va_list args) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
}

timespec Shortened(const timespec* time) {
  const long long ns = (time->tv_sec * 1000000000LL + time->tv_nsec) / kSleepDivisor;
  return {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
}

}  // namespace

extern "C" {

void zel_faults_arm(int armed) { g_armed.store(armed != 0); }
int zel_faults_fired() { return g_fired.load() ? 1 : 0; }
// The first call of the place of that index; 0 behind the last.
long zel_faults_place(size_t index) {
  return index < g_placeCount.load() ? g_placeCalls[index].load() : 0;
}

void* malloc(size_t size) noexcept { return Fails("alloc") ? nullptr : __libc_malloc(size); }
void* calloc(size_t count, size_t size) noexcept {
  return Fails("alloc") ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) noexcept {
  return Fails("alloc") ? nullptr : __libc_realloc(memory, size);
}
void* reallocarray(void* memory, size_t count, size_t size) noexcept {
  size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes) || Fails("alloc")) return nullptr;
  return __libc_realloc(memory, bytes);
}

ssize_t write(int file, const void* data, size_t size) { return Write(file, data, size, nullptr); }
ssize_t pwrite(int file, const void* data, size_t size, off_t place) {
  return Write(file, data, size, &place);
}
ssize_t pwrite64(int file, const void* data, size_t size, off64_t place) {
  return Write(file, data, size, &place);
}
ssize_t writev(int file, const iovec* parts, int count) {
  if (Fails("write")) return -1;
  return syscall(SYS_writev, file, parts, count);
}
size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
  if (file == stderr || file == stdout) return Next(&fwrite, "fwrite")(data, size, count, file);
  return Call("write", size_t{0}, &fwrite, "fwrite", data, size, count, file);
}

int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = ModeOf(flags, args);
  va_end(args);
  return Open(AT_FDCWD, path, flags, mode);
}
int open64(const char* path, int flags, ...) __attribute__((alias("open")));
int openat(int directory, const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = ModeOf(flags, args);
  va_end(args);
  return Open(directory, path, flags, mode);
}
int openat64(int directory, const char* path, int flags, ...) __attribute__((alias("openat")));
int __open_2(const char* path, int flags) { return Open(AT_FDCWD, path, flags, 0); }
int __open64_2(const char* path, int flags) { return Open(AT_FDCWD, path, flags, 0); }
int __openat_2(int directory, const char* path, int flags) {
  return Open(directory, path, flags, 0);
}
int creat(const char* path, mode_t mode) {
  return Open(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}
FILE* fopen(const char* path, const char* mode) {
  return Call("open", static_cast<FILE*>(nullptr), &fopen, "fopen", path, mode);
}

int fsync(int file) { return Fails("sync") ? -1 : static_cast<int>(syscall(SYS_fsync, file)); }
int fdatasync(int file) {
  return Fails("sync") ? -1 : static_cast<int>(syscall(SYS_fdatasync, file));
}
int ftruncate(int file, off_t length) noexcept {
  return Fails("truncate") ? -1 : static_cast<int>(syscall(SYS_ftruncate, file, length));
}
int ftruncate64(int file, off64_t length) noexcept {
  return Fails("truncate") ? -1 : static_cast<int>(syscall(SYS_ftruncate, file, length));
}
int rename(const char* from, const char* to) noexcept {
  return Fails("rename") ? -1 : static_cast<int>(syscall(SYS_rename, from, to));
}
int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept {
  if (Fails("rename")) return -1;
  return static_cast<int>(syscall(SYS_renameat, fromDirectory, from, toDirectory, to));
}
int unlink(const char* path) noexcept {
  return Fails("remove") ? -1 : static_cast<int>(syscall(SYS_unlink, path));
}
int unlinkat(int directory, const char* path, int flags) noexcept {
  if (Fails("remove")) return -1;
  return static_cast<int>(syscall(SYS_unlinkat, directory, path, flags));
}
int remove(const char* path) noexcept { return Call("remove", -1, &remove, "remove", path); }
int mkdir(const char* path, mode_t mode) noexcept {
  return Fails("mkdir") ? -1 : static_cast<int>(syscall(SYS_mkdir, path, mode));
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*entry)(void*),
                   void* arg) noexcept {
  return Call("thread", g_errno, &pthread_create, "pthread_create", thread, attr, entry, arg);
}

int nanosleep(const timespec* time, timespec* rest) {
  const timespec shortened = Shortened(time);
  return static_cast<int>(syscall(SYS_nanosleep, &shortened, rest));
}
int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* rest) {
  const timespec shortened = (flags & TIMER_ABSTIME) != 0 ? *time : Shortened(time);
  const long result = syscall(SYS_clock_nanosleep, clock, flags, &shortened, rest);
  return result == 0 ? 0 : errno;
}

}  // extern "C"
