// Diagnostics of the DNS and web-socket libraries. A registered function is called on any
// thread, with no lock held and a text that is never null; null unregisters.
#pragma once

#include "zel_platform/platform_export.h"

extern "C" {
// Where the DNS library tells what it does.
ZEL_PLATFORM_API void orb_dns_register_log_func(void (*log)(const char* text));
// 3 errors, 4 warnings too, 5 all. Called before the registration.
ZEL_PLATFORM_API void orb_dns_set_log_level(int level);
// Where the web-socket library tells what it does.
ZEL_PLATFORM_API void orb_websocket_reg_log_fn(void (*log)(const char* text));
}
