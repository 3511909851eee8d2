// Seam of the reference memory cache for tests; the product never includes it.
#pragma once

#include "zel_platform/platform_export.h"

// The next `count` stores change nothing and return `code`, which is not 0.
ZEL_PLATFORM_API void orb_cache_ref_refuse_stores(unsigned int count, int code);
// Forgets every value and every refusal still due.
ZEL_PLATFORM_API void orb_cache_ref_reset();
