#include "nettools/StunMessage.h"

#include <algorithm>

namespace {

constexpr unsigned kBindingRequest = 0x0001;
constexpr unsigned kBindingSuccess = 0x0101;
constexpr unsigned kBindingError = 0x0111;
constexpr unsigned char kMagicCookie[] = {0x21, 0x12, 0xA4, 0x42};
constexpr std::size_t kLengthAt = 2;
constexpr std::size_t kCookieAt = 4;
constexpr std::size_t kIdAt = 8;
constexpr std::size_t kAttributeHeaderBytes = 4;

unsigned ReadUint16(const unsigned char* bytes) { return bytes[0] << 8U | bytes[1]; }

// Attributes are padded to multiples of 4 bytes (section 14).
bool AreAttributesWhole(const unsigned char* data, std::size_t size) {
  while (size >= kAttributeHeaderBytes) {
    const std::size_t padded = (ReadUint16(data + 2) + 3U) & ~std::size_t{3};
    const std::size_t whole = kAttributeHeaderBytes + padded;
    if (whole > size) return false;
    data += whole;
    size -= whole;
  }
  return size == 0;
}

}  // namespace

StunRequest BuildStunRequest(const StunTransactionId& id) {
  StunRequest request{};  // the length of no attributes is 0
  request[0] = kBindingRequest >> 8U;
  request[1] = kBindingRequest & 0xFFU;
  std::copy(std::begin(kMagicCookie), std::end(kMagicCookie), request.begin() + kCookieAt);
  std::copy(id.begin(), id.end(), request.begin() + kIdAt);
  return request;
}

std::size_t StunMessageSize(const unsigned char* header) {
  const unsigned length = ReadUint16(header + kLengthAt);
  const bool isStun =
      (header[0] & 0xC0U) == 0 && length % 4 == 0 &&
      std::equal(std::begin(kMagicCookie), std::end(kMagicCookie), header + kCookieAt);
  return isStun ? kStunHeaderBytes + length : 0;
}

bool ParseStunAnswer(const unsigned char* data, std::size_t size, StunTransactionId* id) {
  if (size < kStunHeaderBytes || StunMessageSize(data) != size) return false;
  const unsigned type = ReadUint16(data);
  if (type != kBindingSuccess && type != kBindingError) return false;
  if (!AreAttributesWhole(data + kStunHeaderBytes, size - kStunHeaderBytes)) return false;
  std::copy_n(data + kIdAt, id->size(), id->begin());
  return true;
}
