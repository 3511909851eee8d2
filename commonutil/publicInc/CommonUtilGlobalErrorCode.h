// The one place where an error code of an SDK library is checked against the codes known.
#pragma once

#include <cstdint>

#include "publicInc/ZelExport.h"

namespace commonutil {

// A global error code. The type is fixed, so that a code nobody knows is a value of it too.
enum tagSDKERR : std::int32_t { SDKERR_SUCCESS = 0 };

// Any thread; takes no lock and, for a known code, allocates nothing.
class ZEL_API ZelGlobalErrorCode {
 public:
  // The global code that stands for `code`: at present `code` itself for every code. One that is
  // not in the table comes back unchanged and is logged, at info level; 0 is success and never
  // looked up.
  static tagSDKERR GetGlobalErrorCode(int code);
};

}  // namespace commonutil
