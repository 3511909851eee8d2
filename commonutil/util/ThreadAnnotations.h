// Lock annotations that clang checks with -Wthread-safety; other compilers ignore them.
#pragma once

#if defined(__clang__)
#define ZEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZEL_THREAD_ANNOTATION(x)
#endif

#define ZEL_CAPABILITY(name) ZEL_THREAD_ANNOTATION(capability(name))
#define ZEL_SCOPED_CAPABILITY ZEL_THREAD_ANNOTATION(scoped_lockable)
#define ZEL_GUARDED_BY(lock) ZEL_THREAD_ANNOTATION(guarded_by(lock))
#define ZEL_REQUIRES(...) ZEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZEL_EXCLUDES(...) ZEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZEL_ACQUIRE(...) ZEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZEL_RELEASE(...) ZEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZEL_NO_THREAD_SAFETY_ANALYSIS ZEL_THREAD_ANNOTATION(no_thread_safety_analysis)
