// Seam of the reference settings: a number set here wins over the settings file. Used by tests
// and by programs that set the platform up; the product never includes it.
#pragma once

#include "zel_platform/platform_export.h"

ZEL_PLATFORM_API void orb_config_ref_set(int number, int value);
// Forgets every number set here, the directory and the content of the settings file.
ZEL_PLATFORM_API void orb_config_ref_clear();
