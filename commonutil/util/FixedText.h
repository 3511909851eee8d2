// Texts in the fixed arrays of callers' records.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace commonutil {

// The text of an array that may lack its NUL.
template <std::size_t kSize>
std::string FixedText(const char (&text)[kSize]) {
  return std::string(text, std::find(text, text + kSize, '\0'));
}

inline const char* TextOrEmpty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace commonutil
