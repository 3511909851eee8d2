// Seam of the reference tracking library for tests; the product never includes it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zel_platform/platform_export.h"

// One call's record, copied: its texts and numbers by name, in the order of the contract.
// A null text has no value. The texts are as the caller passed them, not masked.
struct ZEL_PLATFORM_API TrackRecord {
  std::string function;
  std::vector<std::pair<std::string, std::optional<std::string>>> texts;
  std::vector<std::pair<std::string, std::int64_t>> numbers;

  // Null when there is no text of this name or it was null.
  const std::string* Text(const std::string& name) const;
};

struct TrackCallbacks {
  int (*batchAdd)(const void* entries, int count);
  int (*query)(const char* key, void* out, int* count);
  void (*onError)(const char* text);
};

// The latest records, oldest first.
ZEL_PLATFORM_API std::vector<TrackRecord> track_ref_records();
// How often a function that keeps records or uploads was called.
ZEL_PLATFORM_API std::uint64_t track_ref_calls(const std::string& function);
// What Track_MsgDotCount counted for a category.
ZEL_PLATFORM_API std::uint64_t track_ref_messages(int category);
ZEL_PLATFORM_API TrackCallbacks track_ref_callbacks();
// Non-zero: InitUnifiedTrack returns it and does nothing else. Zero: it works again.
ZEL_PLATFORM_API void track_ref_set_init_result(int result);
// Back to the state of a fresh process; the module log is left as it is.
ZEL_PLATFORM_API void track_ref_reset();
