// Seam of the reference settings: no setting has a value until it is given one here.
// Used by tests and by programs that set the platform up; the product never includes it.
#pragma once

#include "zel_platform/platform_export.h"

ZEL_PLATFORM_API void orb_config_ref_set(int number, int value);
// No setting has a value any more.
ZEL_PLATFORM_API void orb_config_ref_clear();
