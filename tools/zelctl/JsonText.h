// JSON messages as text.
#pragma once

#include <string>

#include <json/value.h>

namespace zelctl {

// False for what is no JSON. Takes what the library sends: an error reply holds its whole request,
// which may itself be nested as deeply as the library's own reader allows.
bool ParseJson(const std::string& text, Json::Value& root);

std::string OnOneLine(const Json::Value& message);

}  // namespace zelctl
