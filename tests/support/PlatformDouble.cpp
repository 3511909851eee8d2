#include "PlatformDouble.h"

#include <cstdio>

#include "DoubleInternals.h"
#include "prax/prax_ref.h"

namespace support {

std::string TextOrNull(const char* text) { return text ? text : "(null)"; }

std::string FormatText(const char* format, va_list arguments) {
  va_list measured;
  va_copy(measured, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) return {};
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

void ResetPlatformDouble() {
  PRAX_Ref_Reset();
  ClearLog();
  ResetZorm();
  ResetTrack();
  ResetNet();
}

}  // namespace support
