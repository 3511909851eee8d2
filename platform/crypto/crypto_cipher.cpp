#include <errno.h>
#include <sys/random.h>

#include <climits>
#include <cstring>

#include "crypto/openssl_handle.h"
#include "zel_platform/crypto.h"

namespace {

constexpr int kOk = 0;
constexpr int kInvalidArgument = 1;
constexpr int kTooSmall = 2;
constexpr int kCipherFailed = 3;  // also a wrong padding
constexpr int kNoRandom = 4;
constexpr int kNoMemory = 5;

constexpr unsigned int kAes256Cbc = 0;
constexpr unsigned int kKeyBytes = 32;
constexpr unsigned int kBlockBytes = 16;
// OpenSSL counts in int, and a whole block of padding may be added.
constexpr unsigned int kMostBytes = INT_MAX - kBlockBytes;

bool AreParametersValid(unsigned int algorithm, const unsigned char* key, unsigned int keyLength,
                        const unsigned char* iv, unsigned int ivLength) {
  return algorithm == kAes256Cbc && key && keyLength == kKeyBytes && iv && ivLength == kBlockBytes;
}

enum class Direction { kDecrypt = 0, kEncrypt = 1 };  // the numbers are OpenSSL's

// `out` has room for the input and one block more.
int RunCbc(Direction direction, const unsigned char* key, const unsigned char* iv,
           const unsigned char* in, unsigned int inLength, unsigned char* out,
           unsigned int* outLength) {
  const OpenSslScope scope;
  const CipherCtx context(::EVP_CIPHER_CTX_new());
  if (!context) return kNoMemory;
  int written = 0;
  int last = 0;
  if (::EVP_CipherInit_ex(context.get(), ::EVP_aes_256_cbc(), nullptr, key, iv,
                          static_cast<int>(direction)) != 1 ||
      (inLength > 0 &&
       ::EVP_CipherUpdate(context.get(), out, &written, in, static_cast<int>(inLength)) != 1) ||
      ::EVP_CipherFinal_ex(context.get(), out + written, &last) != 1) {
    return kCipherFailed;
  }
  *outLength = static_cast<unsigned int>(written + last);
  return kOk;
}

}  // namespace

int ORB_CPYPT_RealRandom(unsigned char* out, unsigned int length) {
  if (!out && length > 0) return kInvalidArgument;
  unsigned int filled = 0;
  while (filled < length) {
    const ssize_t got = ::getrandom(out + filled, length - filled, 0);
    if (got < 0 && errno != EINTR) return kNoRandom;
    if (got > 0) filled += static_cast<unsigned int>(got);
  }
  return kOk;
}

unsigned int ORB_CRYPT_GetblockSize(unsigned int algorithm) {
  return algorithm == kAes256Cbc ? kBlockBytes : 0;
}

int ORB_CPYPT_Encrypt(unsigned int algorithm, const unsigned char* key, unsigned int keyLength,
                      const unsigned char* iv, unsigned int ivLength, const unsigned char* in,
                      unsigned int inLength, unsigned char* out, unsigned int* outLength,
                      unsigned int capacity) {
  if (!AreParametersValid(algorithm, key, keyLength, iv, ivLength)) return kInvalidArgument;
  if ((!in && inLength > 0) || inLength > kMostBytes || !out || !outLength) return kInvalidArgument;
  const unsigned int padded = (inLength / kBlockBytes + 1) * kBlockBytes;
  if (capacity < padded) return kTooSmall;
  return RunCbc(Direction::kEncrypt, key, iv, in, inLength, out, outLength);
}

int ORB_CPYPT_Decrypt(unsigned int algorithm, const unsigned char* key, unsigned int keyLength,
                      const unsigned char* iv, unsigned int ivLength, const unsigned char* in,
                      unsigned int inLength, unsigned char* out, unsigned int* outLength,
                      unsigned int capacity) {
  if (!AreParametersValid(algorithm, key, keyLength, iv, ivLength)) return kInvalidArgument;
  if (!in || inLength > kMostBytes || (!out && capacity > 0) || !outLength) return kInvalidArgument;
  if (inLength == 0 || inLength % kBlockBytes != 0) return kCipherFailed;
  // OpenSSL may write a whole block more than the plain text has.
  SecretBytes plain(inLength + kBlockBytes);
  if (!plain.Data()) return kNoMemory;
  unsigned int plainLength = 0;
  const int result = RunCbc(Direction::kDecrypt, key, iv, in, inLength, plain.Data(), &plainLength);
  if (result != kOk) return result;
  if (plainLength > capacity) return kTooSmall;
  if (plainLength > 0) std::memcpy(out, plain.Data(), plainLength);
  *outLength = plainLength;
  return kOk;
}

int orb_pkcs5_derivekey_ex(const unsigned char* password, unsigned int passwordLength,
                           unsigned int iterations, unsigned int keyLength,
                           const unsigned char* salt, unsigned int saltLength, unsigned char* out) {
  if ((!password && passwordLength > 0) || (!salt && saltLength > 0) || !out) {
    return kInvalidArgument;
  }
  // A length that turns negative would make OpenSSL count the password itself.
  if (passwordLength > INT_MAX || saltLength > INT_MAX) return kInvalidArgument;
  if (iterations < 1 || iterations > INT_MAX || keyLength < 1 || keyLength > INT_MAX) {
    return kInvalidArgument;
  }
  const OpenSslScope scope;
  const int done =
      ::PKCS5_PBKDF2_HMAC(passwordLength > 0 ? reinterpret_cast<const char*>(password) : "",
                          static_cast<int>(passwordLength), saltLength > 0 ? salt : nullptr,
                          static_cast<int>(saltLength), static_cast<int>(iterations),
                          ::EVP_sha256(), static_cast<int>(keyLength), out);
  return done == 1 ? kOk : kCipherFailed;
}
