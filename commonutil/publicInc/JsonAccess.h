// Reading requests: through a const reference, looking for a key never adds it.
#pragma once

#include <json/value.h>

inline const Json::Value& AsConst(const Json::Value& value) { return value; }

inline unsigned int UnsignedOrZero(const Json::Value& value) {
  return value.isUInt() ? value.asUInt() : 0;
}
