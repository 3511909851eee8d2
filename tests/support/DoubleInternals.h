// What the sources of the platform double share; tests include PlatformDouble.h instead.
#pragma once

#include <cstdarg>
#include <mutex>
#include <string>
#include <type_traits>

#include "PlatformDouble.h"

namespace support {

std::string TextOrNull(const char* text);  // "(null)" for null
__attribute__((format(printf, 1, 0))) std::string FormatText(const char* format, va_list arguments);

// Adds the arguments of a call: texts, numbers, and whether other pointers are there.
inline void AddTo(PlatformCall&) {}
template <class First, class... Rest>
void AddTo(PlatformCall& call, First first, Rest... rest) {
  if constexpr (std::is_convertible_v<First, const char*>) {
    call.texts.push_back(TextOrNull(first));
  } else if constexpr (std::is_same_v<First, std::string>) {
    call.texts.push_back(first);
  } else if constexpr (std::is_pointer_v<First>) {
    call.numbers.push_back(first != nullptr);
  } else {
    call.numbers.push_back(first);
  }
  AddTo(call, rest...);
}

// The one T of the process, held by this thread as long as this object lives.
template <class T>
class Locked {
 public:
  T* operator->() const { return &One().value; }
  T& operator*() const { return One().value; }

 private:
  struct Guarded {
    std::mutex lock;
    T value;
  };
  static Guarded& One() {
    static Guarded* const one = new Guarded;  // never destroyed
    return *one;
  }

  std::lock_guard<std::mutex> m_hold{One().lock};
};

void ResetZorm();
void ResetTrack();
void ResetNet();

}  // namespace support
