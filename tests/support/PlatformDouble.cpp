#include "PlatformDouble.h"

#include <algorithm>

#include "DoubleInternals.h"
#include "prax/prax_ref.h"

namespace support {

int CountOf(const std::string& function, const std::vector<PlatformCall>& calls) {
  return static_cast<int>(std::count_if(calls.begin(), calls.end(), [&](const PlatformCall& call) {
    return call.function == function;
  }));
}

void ResetPlatformDouble() {
  PRAX_Ref_Reset();
  ClearLog();
  ResetZorm();
  ResetTrack();
  ResetNet();
}

}  // namespace support
