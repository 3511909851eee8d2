// Symbol visibility of the platform contract. Every function of these headers is
// visible in the library that implements it, whatever that library's default is.
#pragma once

// Before a function or class: visible.
#define ZEL_PLATFORM_API __attribute__((visibility("default")))
