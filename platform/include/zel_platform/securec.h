// Bounds-checked copies, after ISO/IEC 9899:2011 Annex K, with the failures below
// fixed where the annex leaves a choice. Pure functions: any thread, no state.
//
// Failure codes: EINVAL (22) for a null pointer, a size of 0 or above RSIZE_MAX, or
// overlapping buffers; ERANGE (34) for a source that does not fit. No constraint
// handler is called.
//
// The functions carry hidden visibility and are linked into each library that uses
// them, because other libraries of a process may export the same names.
#pragma once

#include <cstddef>
#include <cstdint>

typedef int errno_t;          // 0, EINVAL or ERANGE
typedef std::size_t rsize_t;  // a size, RSIZE_MAX at most

// Half of SIZE_MAX, so that a negative int converted to a size is refused.
constexpr rsize_t kRsizeMax = SIZE_MAX >> 1;

#pragma GCC visibility push(hidden)
extern "C" {
// Copies `src` with its NUL. On failure dest[0] is set to NUL (never a cut text).
errno_t strcpy_s(char* dest, rsize_t destMax, const char* src);

// Copies at most `count` characters and adds a NUL. On failure dest[0] is NUL. A
// `count` below the length of `src` cuts the text and is no failure.
errno_t strncpy_s(char* dest, rsize_t destMax, const char* src, rsize_t count);

// On failure all `destMax` bytes of `dest` are zeroed.
errno_t memcpy_s(void* dest, rsize_t destMax, const void* src, rsize_t count);

// Is never optimised away. A `count` above `destMax` fills `destMax` bytes and fails.
errno_t memset_s(void* dest, rsize_t destMax, int c, rsize_t count);

// Returns the length written, or -1 with an empty text when it does not fit.
__attribute__((format(printf, 3, 4))) int sprintf_s(char* dest, rsize_t destMax, const char* fmt,
                                                    ...);

// Conversions known: %d (int*) and %s (char*, rsize_t: pass the size as rsize_t).
// White space in `fmt` skips white space, other characters must match. A token that
// does not fit its buffer ends the scan there, with an empty text in that buffer.
// Returns the number of conversions, or -1 when the text ends before the first.
int sscanf_s(const char* text, const char* fmt, ...);

// strtok_r under its secure name: the text is cut in place, `context` keeps the rest.
char* strtok_s(char* s, const char* delim, char** context);
}
#pragma GCC visibility pop
