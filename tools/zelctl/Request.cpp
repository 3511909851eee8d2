#include "Request.h"

#include <exception>
#include <memory>

#include <json/reader.h>

namespace zelctl {
namespace {

enum class Reply { kNow, kNotYet, kNever };

struct Command {
  unsigned number;
  Reply reply;
};

// kNotYet: the command is defined, but this version of the library does not serve it.
constexpr Command kCommands[] = {
    {1, Reply::kNow},     {2, Reply::kNotYet}, {3, Reply::kNotYet},  {4, Reply::kNotYet},
    {5, Reply::kNotYet},  {6, Reply::kNotYet}, {7, Reply::kNotYet},  {8, Reply::kNotYet},
    {9, Reply::kNotYet},  {11, Reply::kNow},   {12, Reply::kNow},    {13, Reply::kNow},
    {14, Reply::kNotYet}, {15, Reply::kNever}, {16, Reply::kNotYet}, {18, Reply::kNever},
};
// The bits of "cmd" that select the command.
constexpr unsigned kCommandMask = 0x2FFFF;

const Command* FindCommand(unsigned sent) {
  for (const Command& command : kCommands) {
    if (command.number == (sent & kCommandMask)) return &command;
  }
  return nullptr;
}

bool Parse(const std::string& text, Json::Value& root) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
  } catch (const std::exception&) {  // nested too deeply
    return false;
  }
}

Request NoReply(const std::string& remark) {
  Request request;
  request.remark = remark;
  return request;
}

}  // namespace

std::optional<unsigned> UnsignedMember(const Json::Value& object, const char* key) {
  const Json::Value& member = object[key];
  if (!member.isUInt()) return std::nullopt;
  return member.asUInt();
}

Request ReadRequest(const std::string& text) {
  Json::Value root;
  if (!Parse(text.c_str(), root)) return NoReply("not JSON");
  if (!root.isObject()) return NoReply("not a JSON object");
  const std::optional<unsigned> sent = UnsignedMember(root, "cmd");
  if (!sent) return NoReply("\"cmd\" is not an unsigned number");
  const Command* const command = FindCommand(*sent);
  if (command == nullptr) return NoReply("unknown command " + std::to_string(*sent));

  Request request;
  request.isDueReply = command->reply == Reply::kNow;
  request.command = *sent;
  request.sno = UnsignedMember(root, "sno");
  if (command->reply == Reply::kNotYet) {
    request.remark = "command " + std::to_string(*sent) + " is not served by this version";
  }
  return request;
}

}  // namespace zelctl
