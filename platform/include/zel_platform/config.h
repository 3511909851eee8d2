// Integer settings of the platform, by number. Any thread.
#pragma once

#include "zel_platform/platform_export.h"

// The default for a number that is not set.
extern "C" ZEL_PLATFORM_API int OrbGetGlobalInt32CfgWithDefVal(int number, int defaultValue);
