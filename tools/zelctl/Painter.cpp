#include "Painter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <json/writer.h>

#include "Text.h"

namespace zelctl {
namespace {

constexpr std::size_t kIndent = 2;
constexpr std::size_t kDeepestShown = 2;  // objects in objects that get lines of their own
constexpr std::size_t kMostMembers = 24;
constexpr std::size_t kRoomForCount = 24;
constexpr std::size_t kLeastShown = 8;  // characters of a folded text
constexpr char kEllipsis[] = "\u2026";
// These first, the others by their alphabet.
constexpr const char* kFirstKeys[] = {"rsp", "notify", "cmd", "sno", "description", "result"};

const char* SequenceOf(Colour colour) {
  switch (colour) {
    case Colour::kKey:
      return "\033[36m";
    case Colour::kText:
      return "\033[32m";
    case Colour::kNumber:
      return "\033[33m";
    case Colour::kWord:
      return "\033[35m";
    case Colour::kGood:
      return "\033[1;32m";
    case Colour::kBad:
      return "\033[1;31m";
    case Colour::kEvent:
      return "\033[1;34m";
    case Colour::kFaint:
      return "\033[2m";
  }
  return "";
}

bool IsContinuation(char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; }

// A terminal would obey the control characters that a JSON text may hold as they are: DEL, and
// U+0080 to U+009F in two bytes.
std::string WithoutControls(const std::string& text) {
  constexpr char kTwoByteControls = '\xc2';
  std::string shown;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    if (text[i] == '\x7f') {
      shown += "\\u007f";
    } else if (text[i] == kTwoByteControls && next >= 0x80 && next < 0xa0) {
      constexpr char kDigits[] = "0123456789abcdef";
      shown += std::string("\\u00") + kDigits[next >> 4] + kDigits[next & 0xf];
      ++i;
    } else {
      shown += text[i];
    }
  }
  return shown;
}

std::string JsonOf(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  return WithoutControls(Json::writeString(builder, value));
}

std::vector<std::string> OrderedKeys(const Json::Value& object) {
  std::vector<std::string> keys = object.getMemberNames();
  const auto rank = [](const std::string& key) {
    return std::find(std::begin(kFirstKeys), std::end(kFirstKeys), key) - std::begin(kFirstKeys);
  };
  std::stable_sort(keys.begin(), keys.end(),
                   [&](const std::string& a, const std::string& b) { return rank(a) < rank(b); });
  return keys;
}

bool IsContainer(const Json::Value& value) { return value.isObject() || value.isArray(); }

std::string CountOf(std::size_t count, const char* one, const char* many) {
  return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

// The first `count` characters.
std::string Beginning(const std::string& text, std::size_t count) {
  std::size_t end = 0;
  for (; end < text.size() && (count > 0 || IsContinuation(text[end])); ++end) {
    if (!IsContinuation(text[end])) --count;
  }
  return text.substr(0, end);
}

}  // namespace

bool IsColourful(int fd) {
  const char* const refused = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  if (refused != nullptr && *refused != '\0') return false;
  return ::isatty(fd) == 1 && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

std::string Painter::Paint(Colour colour, const std::string& text) const {
  return m_isColourful ? SequenceOf(colour) + text + "\033[0m" : text;
}

std::string Painter::Key(const std::string& key) const {
  return Paint(Colour::kKey, JsonOf(key)) + ": ";
}

std::string Painter::Scalar(const Json::Value& value) const {
  if (value.isString()) return Paint(Colour::kText, JsonOf(value));
  return Paint(value.isNumeric() && !value.isBool() ? Colour::kNumber : Colour::kWord,
               JsonOf(value));
}

std::string Painter::OneLine(const Json::Value& message) const {
  if (!IsContainer(message)) return Scalar(message);
  std::string text(1, message.isObject() ? '{' : '[');
  const char* separator = "";
  if (message.isArray()) {
    for (const Json::Value& item : message) {
      text += separator + OneLine(item);
      separator = ", ";
    }
    return text + ']';
  }
  for (const std::string& key : OrderedKeys(message)) {
    text += separator + Key(key) + OneLine(message[key]);
    separator = ", ";
  }
  return text + '}';
}

std::string Painter::Folded(const Json::Value& message, std::size_t columns, bool& isFolded) const {
  if (Width(Painter(false).OneLine(message)) <= columns) return OneLine(message);
  return Members(message, columns, 0, isFolded);
}

std::string Painter::Members(const Json::Value& object, std::size_t columns, std::size_t indent,
                             bool& isFolded) const {
  const std::size_t inner = (indent + 1) * kIndent;
  std::string text = "{";
  std::size_t count = 0;
  for (const std::string& key : OrderedKeys(object)) {
    if (count != 0) text += ',';
    text += '\n' + std::string(inner, ' ');
    if (count == kMostMembers) {
      isFolded = true;
      text += Paint(Colour::kFaint, kEllipsis + std::to_string(object.size() - count) + " more");
      break;
    }
    ++count;
    const std::size_t before = inner + Width(JsonOf(key)) + 3;  // colon, blank, comma
    text += Key(key) + Member(object[key], columns, before, indent + 1, isFolded);
  }
  return text + '\n' + std::string(indent * kIndent, ' ') + '}';
}

std::string Painter::Member(const Json::Value& value, std::size_t columns, std::size_t before,
                            std::size_t indent, bool& isFolded) const {
  const std::string plain = Painter(false).OneLine(value);
  const std::size_t room = columns > before ? columns - before : 0;
  if (Width(plain) <= room) return OneLine(value);
  if (value.isObject() && indent < kDeepestShown) {
    return Members(value, columns, indent, isFolded);
  }
  isFolded = true;
  if (value.isObject()) {
    return Paint(Colour::kFaint,
                 std::string("{") + kEllipsis + ' ' + CountOf(value.size(), "key", "keys") + '}');
  }
  if (value.isArray()) {
    return Paint(Colour::kFaint,
                 std::string("[") + kEllipsis + ' ' + CountOf(value.size(), "item", "items") + ']');
  }
  const std::size_t shown = room > kRoomForCount ? room - kRoomForCount : 0;
  const std::size_t bytes = value.isString() ? value.asString().size() : plain.size();
  return Paint(Colour::kText, Beginning(plain, std::max(shown, kLeastShown)) + kEllipsis) +
         Paint(Colour::kFaint, " (" + CountOf(bytes, "byte", "bytes") + ")");
}

std::string Painter::Whole(const Json::Value& message) const { return WholeAt(message, 0); }

std::string Painter::WholeAt(const Json::Value& value, std::size_t indent) const {
  if (!IsContainer(value) || value.empty()) return OneLine(value);
  const std::string newLine = '\n' + std::string((indent + 1) * kIndent, ' ');
  std::string text(1, value.isObject() ? '{' : '[');
  const char* separator = "";
  if (value.isArray()) {
    for (const Json::Value& item : value) {
      text += separator + newLine + WholeAt(item, indent + 1);
      separator = ",";
    }
  } else {
    for (const std::string& key : OrderedKeys(value)) {
      text += separator + newLine + Key(key) + WholeAt(value[key], indent + 1);
      separator = ",";
    }
  }
  return text + '\n' + std::string(indent * kIndent, ' ') + (value.isObject() ? '}' : ']');
}

}  // namespace zelctl
