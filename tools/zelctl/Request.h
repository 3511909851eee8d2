// What a request's text tells about the reply it is due.
#pragma once

#include <optional>
#include <string>

#include <json/value.h>

namespace zelctl {

// The bits of "cmd" that select the command.
inline constexpr unsigned kCommandMask = 0x2FFFF;

struct Request {
  bool isDueReply = false;
  bool startsDetection = false;  // a good reply is followed by notifications
  unsigned command = 0;          // as sent, which is what the reply's "rsp" echoes
  std::optional<unsigned> sno;   // when the reply echoes one
  std::string remark;            // why no reply is awaited; empty where that is the rule
};

// Reads `text` as the library will: only the part before a NUL counts.
Request ReadRequest(const std::string& text);

// The unsigned number under `key`, if `object` has one.
std::optional<unsigned> UnsignedMember(const Json::Value& object, const char* key);

}  // namespace zelctl
