#include "Request.h"

#include <exception>
#include <memory>

#include <json/reader.h>

namespace zelctl {
namespace {

enum class Reply { kYes, kNever };

struct Command {
  unsigned number;
  Reply reply;
  bool startsDetection = false;
};

constexpr Command kCommands[] = {
    {1, Reply::kYes},  {2, Reply::kYes},    {3, Reply::kYes},        {4, Reply::kYes},
    {5, Reply::kYes},  {6, Reply::kYes},    {7, Reply::kYes},        {8, Reply::kYes},
    {9, Reply::kYes},  {11, Reply::kYes},   {12, Reply::kYes},       {13, Reply::kYes},
    {14, Reply::kYes}, {15, Reply::kNever}, {16, Reply::kYes, true}, {18, Reply::kNever},
};

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
  // The library reads to the first NUL.
  if (!Parse(text.substr(0, text.find('\0')), root)) return NoReply("not JSON");
  if (!root.isObject()) return NoReply("not a JSON object");
  const std::optional<unsigned> sent = UnsignedMember(root, "cmd");
  if (!sent) return NoReply("\"cmd\" is not an unsigned number");
  const Command* const command = FindCommand(*sent);
  if (command == nullptr) return NoReply("unknown command " + std::to_string(*sent));

  Request request;
  request.isDueReply = command->reply == Reply::kYes;
  request.startsDetection = command->startsDetection;
  request.command = *sent;
  request.sno = UnsignedMember(root, "sno");
  return request;
}

}  // namespace zelctl
