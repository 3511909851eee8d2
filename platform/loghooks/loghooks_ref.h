// Seam of the reference DNS and web-socket log hooks for tests; the product never includes
// it. There is no DNS or web-socket library behind the hooks: all texts come from here.
#pragma once

#include "zel_platform/platform_export.h"

// Hands `text` to the registered function when the log level lets `level` through: 3 an
// error, 4 a warning, 5 anything else. Null is "".
ZEL_PLATFORM_API void orb_loghooks_ref_emit_dns(int level, const char* text);
ZEL_PLATFORM_API void orb_loghooks_ref_emit_websocket(const char* text);
