// The operating system as the library sees it: threads, locks, time, files, memory.
//
// Any thread may call any function; none calls back into its caller except a filter
// or a registered trace, and then with no lock held. No exception leaves a function.
// Results are 0 for success unless said; null texts count as "".
//
// The logger may use the memory, lock and file functions, so these never trace.
#pragma once

#include <dirent.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdio>

#include "zel_platform/platform_export.h"

typedef unsigned long PRAX_THREAD;         // 0: no thread
typedef pthread_mutex_t PRAX_MUTEX;        // in the caller's memory
typedef sem_t PRAX_SEM;                    // in the caller's memory
typedef void* (*PRAX_ThreadEntry)(void*);  // the body of a thread; its result goes to the join
typedef struct stat PRAX_STAT;             // as stat(2) fills it

// The timer's levels; the lower the value, the more severe.
enum _PRAX_E_TimerLogLv : int {
  PRAX_TIMER_LOG_ERROR = 0,  // an error
  PRAX_TIMER_LOG_1 = 1,      // important
  PRAX_TIMER_LOG_2 = 2,      // in passing
  PRAX_TIMER_LOG_3 = 3       // the finest
};

// The higher the value, the more severe.
enum _PRAX_OS_LOG_LEVEL : int {
  PRAX_OS_LOG_0 = 0,  // the finest
  PRAX_OS_LOG_1 = 1,  // in passing
  PRAX_OS_LOG_2 = 2,  // important
  PRAX_OS_LOG_3 = 3   // an error
};

extern "C" {
// --- Threads -----------------------------------------------------------------

// Starts a joinable thread. `attr` is null. `*out` is written before `entry` runs its
// first statement only by chance: a thread that needs its handle asks for it. On failure
// `*out` is 0 and the error is an errno value.
ZEL_PLATFORM_API int PRAX_PthreadCreate(PRAX_THREAD* out, const void* attr, PRAX_ThreadEntry entry,
                                        void* arg);
// Joining oneself gives EDEADLK (35). `result` may be null.
ZEL_PLATFORM_API int PRAX_PthreadJoin(PRAX_THREAD thread, void** result);
// The thread ends by itself; its handle is of no use from now on.
ZEL_PLATFORM_API int PRAX_PthreadDetach(PRAX_THREAD thread);
// The calling thread's handle.
ZEL_PLATFORM_API PRAX_THREAD PRAX_PthreadSelf(void);
// Names the calling thread, cut to the 15 bytes that Linux keeps.
ZEL_PLATFORM_API int PRAX_PthreadSetName(const char* name);
// The kernel's thread id. Unlike a thread handle it is not given to a later thread while
// an earlier holder of it may still be remembered.
ZEL_PLATFORM_API unsigned long PRAX_GetTID(void);

// --- Time --------------------------------------------------------------------

// Sleeps at least so many milliseconds, through signals.
ZEL_PLATFORM_API void PRAX_SleepMs(unsigned int ms);
// Milliseconds since the epoch. The clock may be set back: subtract as signed values.
ZEL_PLATFORM_API unsigned long long PRAX_GetSystemTime(void);

// --- Locks -------------------------------------------------------------------

// The object lies in the caller's memory, zeroed before its initialisation.
ZEL_PLATFORM_API int PRAX_MutexInitRecursive(PRAX_MUTEX* mutex);
// Waits; the holder may lock again.
ZEL_PLATFORM_API int PRAX_MutexLock(PRAX_MUTEX* mutex);
// As often as locked, by the holder.
ZEL_PLATFORM_API int PRAX_MutexUnLock(PRAX_MUTEX* mutex);
// The memory stays the caller's. Nobody may hold it.
ZEL_PLATFORM_API int PRAX_MutexDestroy(PRAX_MUTEX* mutex);
// A counter in the caller's memory, for the threads of this process.
ZEL_PLATFORM_API int PRAX_SemInit(PRAX_SEM* sem, unsigned int count);
// Does not return for a signal.
ZEL_PLATFORM_API int PRAX_SemWait(PRAX_SEM* sem);
// Counts up and wakes one that waits.
ZEL_PLATFORM_API int PRAX_SemPost(PRAX_SEM* sem);

// --- Files -------------------------------------------------------------------

// As chmod(2): 0 or -1. Follows links.
ZEL_PLATFORM_API int PRAX_Chmod(const char* path, unsigned int mode);
// As fopen, close-on-exec. Null on failure.
ZEL_PLATFORM_API FILE* PRAX_Fopen(const char* path, const char* mode);
// As fread: the number of whole items read.
ZEL_PLATFORM_API size_t PRAX_Fread(void* buffer, size_t size, size_t count, FILE* file);
// As fwrite: the number of whole items written.
ZEL_PLATFORM_API size_t PRAX_Fwrite(const void* buffer, size_t size, size_t count, FILE* file);
// As fclose: what could not be written shows here.
ZEL_PLATFORM_API int PRAX_Fclose(FILE* file);
// Replaces the content of `path` so that a reader, a crash or a power cut finds either
// the old content or the whole new one: temporary file beside it, mode, sync, rename,
// sync of the directory. On failure no temporary file is left and nothing has changed, unless
// that last sync alone failed: the new content is there then, but a power cut may undo it.
ZEL_PLATFORM_API int PRAX_ReplaceFile(const char* path, const void* data, size_t size,
                                      unsigned int mode);
// Size in bytes of what `path` names; non-zero and `*size` untouched when it cannot tell.
ZEL_PLATFORM_API int PRAX_GetFileSize(const char* path, unsigned long* size);
// errno of this thread's last failed call.
ZEL_PLATFORM_API int PRAX_GetLastErr(void);
// 0 or -1. Follows links.
ZEL_PLATFORM_API int PRAX_Stat(const char* path, PRAX_STAT* status);
// Removes a file or an empty directory.
ZEL_PLATFORM_API int PRAX_Remove(const char* path);
// Removes an empty directory.
ZEL_PLATFORM_API int PRAX_RmDir(const char* path);
// Creates one level.
ZEL_PLATFORM_API int PRAX_MkDir(const char* path, unsigned int mode);
// Non-zero for a directory, also through a link.
ZEL_PLATFORM_API int PRAX_IsDir(const char* path);
// Null when it cannot be opened; the handle goes back through PRAX_CloseDir.
ZEL_PLATFORM_API void* PRAX_OpenDir(const char* path);
// Releases a handle of PRAX_OpenDir.
ZEL_PLATFORM_API int PRAX_CloseDir(void* dir);
// Lists the entries that `filter` accepts (non-zero), unsorted. Returns their number, or
// -1 with a null list. Every entry carries a d_type other than DT_UNKNOWN, so a caller
// can tell a link from the directory it points to. The list goes back through
// PRAX_DestoryNameList.
ZEL_PLATFORM_API int PRAX_ScanDir(const char* dir, struct dirent*** list,
                                  int (*filter)(const struct dirent*));
// Spelling is part of the interface. Accepts null and counts of 0 and -1.
ZEL_PLATFORM_API void PRAX_DestoryNameList(struct dirent** list, int count);

// --- Memory and texts --------------------------------------------------------

// Zero-filled; null on failure and for a size of 0.
ZEL_PLATFORM_API void* PRAX_MemMallocS(size_t size);
// Frees memory of PRAX_MemMallocS. Null is ignored.
ZEL_PLATFORM_API void PRAX_MemFreeD(void* memory);
// Frees `*memory` and sets it to null.
ZEL_PLATFORM_API void PRAX_MemFreeSetNullD(void** memory);
// Null gives 0.
ZEL_PLATFORM_API unsigned int PRAX_StrLen(const char* text);
// A dotted IPv4 address of four parts, in network byte order; 0xFFFFFFFF when it is none.
ZEL_PLATFORM_API unsigned int PRAX_InetAddr(const char* dotted);

// --- Diagnostics of this library ----------------------------------------------

// Null unregisters.
ZEL_PLATFORM_API void PRAX_TimerRegDebugTrace(void (*trace)(_PRAX_E_TimerLogLv level,
                                                            const char* text));
// Who hears what the operating system layer has to tell.
ZEL_PLATFORM_API void PRAX_OS_RegDebugTrace(void (*trace)(_PRAX_OS_LOG_LEVEL level,
                                                          const char* text));
}
