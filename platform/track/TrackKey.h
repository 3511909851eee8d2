// The spool's own key: made once for an installation and kept in a file that only running key
// management can open.
#pragma once

#include <string>

#include "crypto/openssl_handle.h"

constexpr std::size_t kTrackKeyBytes = 32;
using TrackKey = SecretArray<kTrackKeyBytes>;

enum class TrackKeyResult {
  kKnown,        // the key of earlier starts
  kNew,          // there was none, or key management cannot open it: what it protected is lost
  kUnavailable,  // key management does not run, or the file cannot be used
};

// Any thread, one at a time for a file.
[[nodiscard]] TrackKeyResult LoadTrackKey(const std::string& file, TrackKey* key);
