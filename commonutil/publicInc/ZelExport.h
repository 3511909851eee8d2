// Marks what the shared library exports; everything else stays inside it. The names are
// also listed in cmake/exports.map.
#pragma once

#define ZEL_API __attribute__((visibility("default")))
