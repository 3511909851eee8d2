// Keeps short secrets encrypted while they sit in memory: cipher text under a key that
// exists in this process only, rendered as base64 (RFC 4648) so that it can live in a string.
// Nothing encrypted here can be read by another process or after a restart.
//
// Read-only after construction: any thread.
#pragma once

#include <string>

namespace commonutil {

// A key and a vector of random bytes, and what is encrypted with them.
class EncryptUtils {
 public:
  EncryptUtils();   // draws both
  ~EncryptUtils();  // wipes key and vector
  EncryptUtils(const EncryptUtils&) = delete;
  EncryptUtils& operator=(const EncryptUtils&) = delete;

  // Bytes that the base64 text of a plain text of that length needs, NUL included; 0 when the
  // cipher is not available. A negative length counts as 0.
  int getMinLen(int plainLength) const;

  // 0, or non-zero for an empty text, a null `out`, an `outLength` below getMinLen, or a
  // failure of the cipher. `out` receives a NUL-terminated text.
  int EncryptThenBase64Encode(const std::string& plain, char* out, int outLength) const;
  // The empty string on any failure.
  std::string EncryptThenBase64Encode(const std::string& plain) const;

  // The reverse. `out` receives the plain text, without a NUL of its own: zero it first.
  int Base64DecodeThenDecrypt(const std::string& cipher, char* out, int outLength) const;
  // The empty string on any failure.
  std::string Base64DecodeThenDecrypt(const std::string& cipher) const;

 private:
  static constexpr int kKeyBytes = 32;
  static constexpr int kVectorBytes = 16;

  unsigned char m_key[kKeyBytes];
  unsigned char m_vector[kVectorBytes];
};

}  // namespace commonutil
