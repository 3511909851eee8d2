/*
 * Marks what the shared library exports; everything else stays inside it. The names are
 * also listed in cmake/exports.map.
 */
#ifndef ZEL_UTILS_EXPORT_H
#define ZEL_UTILS_EXPORT_H

#define ZEL_API __attribute__((visibility("default")))
/* A member of an exported class that stays inside. */
#define ZEL_LOCAL __attribute__((visibility("hidden")))

#endif
