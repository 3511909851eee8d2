// What the sources of the platform double share; tests include PlatformDouble.h instead.
#pragma once

#include <cstdarg>
#include <string>

namespace support {

std::string TextOrNull(const char* text);  // "(null)" for null
__attribute__((format(printf, 1, 0))) std::string FormatText(const char* format, va_list arguments);

void ResetLog();
void ResetZorm();
void ResetTrack();
void ResetNet();

}  // namespace support
