// Overwrites texts that held a secret.
#pragma once

#include <string>

#include "zel_platform/securec.h"

namespace commonutil {

// Zeroes every byte that the string owns, also those behind its end, and empties it.
inline void WipeString(std::string& text) noexcept {
  text.resize(text.capacity());  // within the capacity: moves nothing
  (void)memset_s(text.data(), text.size(), 0, text.size());
  text.clear();
}

// Wipes a string at the end of the scope. The string must not have grown meanwhile: the bytes
// that it had before are out of reach then.
class WipeGuard {
 public:
  explicit WipeGuard(std::string& text) : m_text(text) {}
  ~WipeGuard() { WipeString(m_text); }
  WipeGuard(const WipeGuard&) = delete;
  WipeGuard& operator=(const WipeGuard&) = delete;

 private:
  std::string& m_text;
};

}  // namespace commonutil
