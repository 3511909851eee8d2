// Seam of the reference HTTP library for tests; the product never includes it.
#pragma once

#include "zel_platform/http.h"
#include "zel_platform/platform_export.h"

// A copy of the process's proxy, all zeros when there is none. The caller wipes it.
ZEL_PLATFORM_API ORB_HTTP_PROXY orb_http_ref_proxy();
