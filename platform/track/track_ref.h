// Seam of the reference tracking library for tests; the product never includes it.
#pragma once

#include <cstdint>

#include "zel_platform/platform_export.h"

struct TrackCallbacks {
  int (*batchAdd)(const void* entries, int count);
  int (*query)(const char* key, void* out, int* count);
  void (*onError)(const char* text);
};

// What Track_MsgDotCount counted for a category.
ZEL_PLATFORM_API std::uint64_t track_ref_messages(int category);
ZEL_PLATFORM_API TrackCallbacks track_ref_callbacks();
// Non-zero: InitUnifiedTrack returns it and does nothing else. Zero: it works again.
ZEL_PLATFORM_API void track_ref_set_init_result(int result);
// Back to the state of a fresh process; the files and the module log are left as they are.
ZEL_PLATFORM_API void track_ref_reset();
