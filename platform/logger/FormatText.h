// printf formatting into a string, for the log functions of C linkage.
#pragma once

#include <stdarg.h>
#include <stdio.h>

#include <string>

// Empty for a null or invalid format. May throw std::bad_alloc.
__attribute__((format(printf, 1, 0))) inline std::string FormatText(const char* format,
                                                                    va_list arguments) {
  if (format == nullptr) return {};
  va_list again;
  va_copy(again, arguments);
  const int length = ::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length <= 0) return {};
  std::string text(static_cast<std::size_t>(length) + 1, '\0');  // vsnprintf writes its own NUL
  (void)::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}
