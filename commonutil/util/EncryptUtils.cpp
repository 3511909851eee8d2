#include "util/EncryptUtils.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>

#include "util/Log.h"
#include "util/SecureWipe.h"
#include "zel_platform/crypto.h"
#include "zel_platform/securec.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/PublicUtil";
constexpr unsigned int kAlgorithm = 0;

struct FreeMemory {
  void operator()(void* memory) const noexcept { std::free(memory); }
};
struct FreeBase64 {
  void operator()(void* memory) const noexcept { KLB_BASE64Free(memory); }
};
using ByteBuffer = std::unique_ptr<unsigned char, FreeMemory>;
using Base64Text = std::unique_ptr<char, FreeBase64>;
using Base64Bytes = std::unique_ptr<unsigned char, FreeBase64>;

const unsigned char* Bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned int Length(const std::string& text) { return static_cast<unsigned int>(text.size()); }

// As getMinLen, for any length. A plain text that fills its blocks still grows by one.
unsigned long long NeededLength(unsigned long long plainLength) {
  const unsigned long long block = ORB_CRYPT_GetblockSize(kAlgorithm);
  if (block == 0) return 0;
  const unsigned long long padded = block * (plainLength / block + 1);
  return 4 * ((padded + 2) / 3) + 1;
}

int ClampToInt(unsigned long long length) {
  return static_cast<int>(std::min<unsigned long long>(length, INT_MAX));
}

// Calls `convert(buffer, its length)` on a zeroed buffer fit for `inputLength` bytes and returns
// the text it left there, empty on failure. The buffer is wiped.
template <class Convert>
std::string ConvertToText(std::size_t inputLength, Convert convert) {
  std::string buffer(static_cast<std::size_t>(ClampToInt(NeededLength(inputLength))), '\0');
  const WipeGuard wipe(buffer);
  if (convert(buffer.data(), static_cast<int>(buffer.size())) != 0) return {};
  return {buffer, 0, buffer.find('\0')};
}

}  // namespace

EncryptUtils::EncryptUtils() {
  (void)memset_s(m_key, sizeof(m_key), 0, sizeof(m_key));
  (void)memset_s(m_vector, sizeof(m_vector), 0, sizeof(m_vector));
  const int keyResult = ORB_CPYPT_RealRandom(m_key, sizeof(m_key));
  const int vectorResult = ORB_CPYPT_RealRandom(m_vector, sizeof(m_vector));
  ZEL_LOG(kInfo) << "ret1 = " << keyResult << ", ret2 = " << vectorResult;
}

EncryptUtils::~EncryptUtils() {
  (void)memset_s(m_key, sizeof(m_key), 0, sizeof(m_key));
  (void)memset_s(m_vector, sizeof(m_vector), 0, sizeof(m_vector));
}

int EncryptUtils::getMinLen(int plainLength) const {
  return ClampToInt(NeededLength(static_cast<unsigned long long>(std::max(plainLength, 0))));
}

int EncryptUtils::EncryptThenBase64Encode(const std::string& plain, char* out,
                                          int outLength) const {
  if (plain.empty() || !out || outLength <= 0) {
    ZEL_LOG(kError) << "plaintext length == 0 || pszEncrypted == nullptr || puiLen == nullptr";
    return 1;
  }
  // Without a block size there is nothing to check: the cipher keeps to the buffer it gets.
  const unsigned int blockSize = ORB_CRYPT_GetblockSize(kAlgorithm);
  const std::size_t capacity = static_cast<std::size_t>(outLength);
  if (blockSize != 0 && NeededLength(plain.size()) > capacity) {
    ZEL_LOG(kError) << "ORB_CRYPT_GetblockSize error. " << blockSize
                    << ", ciphertextLen = " << outLength;
    return 1;
  }
  const ByteBuffer cipher(static_cast<unsigned char*>(std::malloc(capacity)));
  if (!cipher) {
    ZEL_LOG(kError) << "malloc error. tempLen = " << outLength;
    return 1;
  }
  int copyResult = memset_s(cipher.get(), capacity, 0, capacity);

  unsigned int cipherLength = 0;
  const int ret = ORB_CPYPT_Encrypt(kAlgorithm, m_key, sizeof(m_key), m_vector, sizeof(m_vector),
                                    Bytes(plain), Length(plain), cipher.get(), &cipherLength,
                                    static_cast<unsigned int>(outLength));
  if (ret != 0) {
    ZEL_LOG(kError) << "ORB_CPYPT_Encrypt failed, errno ret = " << ret;
    return ret;
  }
  char* encoded = nullptr;
  (void)KLB_BASE64Encode(cipher.get(), cipherLength, &encoded);  // no text tells of a failure
  const Base64Text text(encoded);
  if (!text) {
    ZEL_LOG(kError) << "KLB_BASE64Encode error.";
    return 1;
  }
  copyResult += strcpy_s(out, capacity, text.get());
  if (copyResult != 0) ZEL_LOG(kError) << "secure func return err: " << copyResult;
  return 0;
}

std::string EncryptUtils::EncryptThenBase64Encode(const std::string& plain) const {
  return ConvertToText(plain.size(), [&](char* out, int outLength) {
    return EncryptThenBase64Encode(plain, out, outLength);
  });
}

int EncryptUtils::Base64DecodeThenDecrypt(const std::string& cipher, char* out,
                                          int outLength) const {
  if (cipher.empty() || !out || outLength <= 0) {
    ZEL_LOG(kError)
        << "ciphertext length == 0 || pPlaintext == nullptr || pPlaintextLen == nullptr";
    return 1;
  }
  unsigned char* bytes = nullptr;
  const int length = KLB_BASE64Decode(cipher.data(), Length(cipher), &bytes);
  const Base64Bytes decoded(bytes);
  if (!decoded || length < 1) {
    ZEL_LOG(kError) << "KLB_BASE64Decode error. len = " << length;
    return 1;
  }
  unsigned int plainLength = 0;
  const int ret =
      ORB_CPYPT_Decrypt(kAlgorithm, m_key, sizeof(m_key), m_vector, sizeof(m_vector), decoded.get(),
                        static_cast<unsigned int>(length), reinterpret_cast<unsigned char*>(out),
                        &plainLength, static_cast<unsigned int>(outLength));
  if (ret != 0) ZEL_LOG(kError) << "ORB_CPYPT_Decrypt error. ret = " << ret;
  return ret;
}

std::string EncryptUtils::Base64DecodeThenDecrypt(const std::string& cipher) const {
  return ConvertToText(cipher.size(), [&](char* out, int outLength) {
    return Base64DecodeThenDecrypt(cipher, out, outLength);
  });
}

}  // namespace commonutil
