#include <bitset>
#include <cctype>
#include <climits>

#include "util/Log.h"
#include "util/PublicUtil.h"
#include "zel_platform/securec.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/PublicUtil";
constexpr char kCopiedMarks[] = "-_.!~*'()/";
constexpr std::size_t kPieceBytes = 4;  // "%", two digits, NUL

using ByteSet = std::bitset<UCHAR_MAX + 1>;

ByteSet MakeCopiedMarks() {
  ByteSet set;
  for (const char* mark = kCopiedMarks; *mark; ++mark) set.set(static_cast<unsigned char>(*mark));
  return set;
}

bool IsCopied(unsigned char byte) {
  static const ByteSet marks = MakeCopiedMarks();
  return std::isalnum(byte) || marks.test(byte);
}

}  // namespace

std::string PublicUtil::urlEncode(const std::string& text) {
  std::string encoded;
  encoded.reserve(text.size());
  for (const char character : text) {
    const unsigned char byte = static_cast<unsigned char>(character);
    if (IsCopied(byte)) {
      encoded.push_back(character);
    } else if (std::isspace(byte)) {
      encoded += "%20";
    } else {
      char piece[kPieceBytes] = {};
      const int ret = sprintf_s(piece, sizeof(piece), "%%%X%X", byte >> 4U, byte & 0xFU);
      if (ret < 0) ZEL_LOG(kError) << "secure function return err: " << ret;
      encoded += piece;
    }
  }
  return encoded;
}

}  // namespace commonutil
