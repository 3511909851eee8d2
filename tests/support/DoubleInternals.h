// What the sources of the platform double share; tests include PlatformDouble.h instead.
#pragma once

#include <mutex>
#include <string>
#include <utility>

#include "PlatformDouble.h"

namespace support {

// Adds an argument of a call: a text, a number, or whether another pointer is there. The sources
// have more of these, for records.
inline void Add(PlatformCall& call, const std::string& text) { call.texts.push_back(text); }
inline void Add(PlatformCall& call, const char* text) { Add(call, std::string(text ?: "(null)")); }
inline void Add(PlatformCall& call, long long number) { call.numbers.push_back(number); }
template <class Other>
void Add(PlatformCall& call, Other* pointer) {
  Add(call, static_cast<long long>(pointer != nullptr));
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

// Adds a call to `Records`, which tell its result.
template <class Records, class... Arguments>
int NoteIn(const char* function, const Arguments&... arguments) {
  PlatformCall call{function, {}, {}};
  (Add(call, arguments), ...);
  const Locked<Records> records;
  records->calls.push_back(std::move(call));
  return records->result;
}

int CountOf(const std::string& function, const std::vector<PlatformCall>& calls);

void ResetZorm();
void ResetTrack();
void ResetNet();

}  // namespace support
