// Where events go from the spool. Used by one thread, the uploader's, which it may block; the
// rest of the library never waits for it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "track/TrackEvent.h"

enum class TrackOutcome {
  kAccepted,
  kRefused,  // for good: the events are given up
  kRetry,
};

struct TrackAnswer {
  TrackOutcome outcome = TrackOutcome::kAccepted;
  std::int64_t retryAfterMs = 0;  // not before; 0: no wish
  std::string reason;             // for the log when something was not accepted
};

class TrackTransport {
 public:
  virtual ~TrackTransport() = default;

  // The event as it goes into a batch: valid UTF-8, masked.
  virtual std::string Encode(const TrackEvent& event) const = 0;
  virtual TrackAnswer Send(const std::vector<std::string>& batch) = 0;
};
