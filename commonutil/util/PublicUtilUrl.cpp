#include <cctype>
#include <string_view>

#include "util/PublicUtil.h"

namespace commonutil {

namespace {

constexpr std::string_view kCopiedMarks = "-_.!~*'()/";
constexpr char kDigits[] = "0123456789ABCDEF";

}  // namespace

std::string PublicUtil::urlEncode(const std::string& text) {
  std::string encoded;
  encoded.reserve(text.size() + text.size() / 2);
  for (const char character : text) {
    const unsigned char byte = static_cast<unsigned char>(character);
    if (std::isalnum(byte) || kCopiedMarks.find(character) != std::string_view::npos) {
      encoded.push_back(character);
    } else if (std::isspace(byte)) {
      encoded += "%20";
    } else {
      encoded += '%';
      encoded += kDigits[byte >> 4U];
      encoded += kDigits[byte & 0xFU];
    }
  }
  return encoded;
}

}  // namespace commonutil
