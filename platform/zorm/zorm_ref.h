// Seam of the reference key management for tests; the product never includes it.
#pragma once

#include <string>
#include <vector>

#include "zel_platform/platform_export.h"

struct ZormCall {
  std::string function;  // "start", "stop", "encrypt" or "decrypt"
  int result;
};

// Each next start returns one of these and does nothing else; a 0 lets it take its course.
ZEL_PLATFORM_API void zorm_ref_set_start_codes(const std::vector<int>& codes);
// The same for the stops: a stop that is made to fail leaves the service running.
ZEL_PLATFORM_API void zorm_ref_set_stop_codes(const std::vector<int>& codes);
// The latest calls, oldest first.
ZEL_PLATFORM_API std::vector<ZormCall> zorm_ref_calls();
// Back to the state of a fresh process: stopped, no codes, no calls. The files stay.
ZEL_PLATFORM_API void zorm_ref_reset();
