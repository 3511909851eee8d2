#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "zel_platform/crypto.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kNotBase64 = -1;

constexpr char kHexDigits[] = "0123456789ABCDEF";
constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPadding = '=';
constexpr std::size_t kGroupDigits = 4;  // four digits stand for three bytes
constexpr std::size_t kGroupBytes = 3;

// -1 for any other character.
int HexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

// -1 for any other character, the padding among them.
int Base64Value(char digit) {
  if (digit >= 'A' && digit <= 'Z') return digit - 'A';
  if (digit >= 'a' && digit <= 'z') return digit - 'a' + 26;
  if (digit >= '0' && digit <= '9') return digit - '0' + 52;
  if (digit == '+') return 62;
  if (digit == '/') return 63;
  return -1;
}

// Encodes 1 to 3 bytes as four characters.
void EncodeGroup(const unsigned char* bytes, std::size_t count, char* text) {
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < kGroupBytes; ++i) bits = bits << 8 | (i < count ? bytes[i] : 0u);
  for (std::size_t i = 0; i < kGroupDigits; ++i) {
    const std::size_t digit = bits >> (6 * (kGroupDigits - 1 - i)) & 63u;
    text[i] = i <= count ? kBase64Digits[digit] : kPadding;
  }
}

// Decodes `count` bytes of a group, whose other digits are padding. False for a character that
// is no digit and for bits set beyond the last byte: one text only stands for given bytes.
bool DecodeGroup(const char* text, std::size_t count, unsigned char* bytes) {
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < kGroupDigits; ++i) {
    const int value = i <= count ? Base64Value(text[i]) : 0;
    if (value < 0) return false;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
  }
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<unsigned char>(bits >> (8 * (kGroupBytes - 1 - i)));
  }
  return (bits & ((1u << (8 * (kGroupBytes - count))) - 1)) == 0;
}

std::size_t CountPadding(const char* text, std::size_t length) {
  if (text[length - 1] != kPadding) return 0;
  return text[length - 2] == kPadding ? 2 : 1;
}

bool DecodeText(const char* text, std::size_t decodedLength, unsigned char* bytes) {
  for (std::size_t done = 0; done < decodedLength; done += kGroupBytes) {
    const std::size_t left = decodedLength - done;
    const std::size_t count = left < kGroupBytes ? left : kGroupBytes;
    if (!DecodeGroup(text + done / kGroupBytes * kGroupDigits, count, bytes + done)) return false;
  }
  return true;
}

}  // namespace

int orb_cvt_hex(const unsigned char* bytes, unsigned int length, char* text,
                unsigned int capacity) {
  const std::size_t digits = std::size_t{length} * 2;
  if ((!bytes && length > 0) || !text || capacity <= digits) return kFailed;
  for (std::size_t i = 0; i < length; ++i) {
    text[2 * i] = kHexDigits[bytes[i] >> 4];
    text[2 * i + 1] = kHexDigits[bytes[i] & 15];
  }
  text[digits] = '\0';
  return kOk;
}

int orb_cvt_bin(const char* text, unsigned int length, unsigned char* bytes,
                unsigned int capacity) {
  if (!bytes && capacity > 0) return kFailed;
  if (capacity > 0) std::memset(bytes, 0, capacity);
  if ((!text && length > 0) || length / 2 > capacity) return kFailed;
  int high = 0;
  for (std::size_t i = 0; i < length; ++i) {
    const int value = HexValue(text[i]);
    if (value < 0) return kFailed;
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): without room no second digit comes
    if (i % 2 == 1) bytes[i / 2] = static_cast<unsigned char>(high * 16 + value);
    high = value;
  }
  return kOk;
}

int KLB_BASE64Encode(const unsigned char* data, unsigned int length, char** text) {
  if (!text) return kFailed;
  *text = nullptr;
  if (!data && length > 0) return kFailed;
  const std::size_t groups = (std::size_t{length} + kGroupBytes - 1) / kGroupBytes;
  char* const encoded = static_cast<char*>(std::malloc(groups * kGroupDigits + 1));
  if (!encoded) return kFailed;
  for (std::size_t group = 0; group < groups; ++group) {
    const std::size_t left = length - group * kGroupBytes;
    EncodeGroup(data + group * kGroupBytes, left < kGroupBytes ? left : kGroupBytes,
                encoded + group * kGroupDigits);
  }
  encoded[groups * kGroupDigits] = '\0';
  *text = encoded;
  return kOk;
}

int KLB_BASE64Decode(const char* text, unsigned int length, unsigned char** data) {
  if (!data) return kNotBase64;
  *data = nullptr;
  if (!text || length == 0 || length % kGroupDigits != 0) return kNotBase64;
  const std::size_t decodedLength =
      length / kGroupDigits * kGroupBytes - CountPadding(text, length);
  if (decodedLength > INT_MAX) return kNotBase64;
  unsigned char* const decoded = static_cast<unsigned char*>(std::malloc(decodedLength));
  if (!decoded) return kNotBase64;
  if (!DecodeText(text, decodedLength, decoded)) {
    std::free(decoded);
    return kNotBase64;
  }
  *data = decoded;
  return static_cast<int>(decodedLength);
}

void KLB_BASE64Free(void* memory) { std::free(memory); }
