// Random bytes, a symmetric cipher, key derivation, hex and base64. Stateless: any
// thread. Results are 0 for success unless said. Lengths are in bytes.
#pragma once

#include "zel_platform/platform_export.h"

extern "C" {
// Fills `out` from the operating system's random source.
ZEL_PLATFORM_API int ORB_CPYPT_RealRandom(unsigned char* out, unsigned int length);

// 16 for algorithm 0, 0 for an unknown one.
ZEL_PLATFORM_API unsigned int ORB_CRYPT_GetblockSize(unsigned int algorithm);
// Algorithm 0: AES-256-CBC with PKCS#7 padding (NIST SP 800-38A, RFC 5652 section 6.3), 32-byte
// key, 16-byte vector. `*outLength` receives the length; non-zero when `capacity` is too small.
ZEL_PLATFORM_API int ORB_CPYPT_Encrypt(unsigned int algorithm, const unsigned char* key,
                                       unsigned int keyLength, const unsigned char* iv,
                                       unsigned int ivLength, const unsigned char* in,
                                       unsigned int inLength, unsigned char* out,
                                       unsigned int* outLength, unsigned int capacity);
// Never writes past `capacity`; `capacity` equal to the plain text's length is enough.
ZEL_PLATFORM_API int ORB_CPYPT_Decrypt(unsigned int algorithm, const unsigned char* key,
                                       unsigned int keyLength, const unsigned char* iv,
                                       unsigned int ivLength, const unsigned char* in,
                                       unsigned int inLength, unsigned char* out,
                                       unsigned int* outLength, unsigned int capacity);

// PBKDF2 with HMAC-SHA-256 (RFC 8018). Empty password and salt are accepted. The function
// is fixed for good: another one would make every existing database unreadable.
ZEL_PLATFORM_API int orb_pkcs5_derivekey_ex(const unsigned char* password,
                                            unsigned int passwordLength, unsigned int iterations,
                                            unsigned int keyLength, const unsigned char* salt,
                                            unsigned int saltLength, unsigned char* out);

// Writes 2 * length upper-case digits and a NUL; `capacity` counts the NUL.
ZEL_PLATFORM_API int orb_cvt_hex(const unsigned char* bytes, unsigned int length, char* text,
                                 unsigned int capacity);
// Zero-fills `bytes`, then converts up to the first character that is no hex digit, which
// makes the result non-zero. An odd last digit is dropped.
ZEL_PLATFORM_API int orb_cvt_bin(const char* text, unsigned int length, unsigned char* bytes,
                                 unsigned int capacity);

// RFC 4648 section 4, padded, without line breaks. `*text` is NUL-terminated and the caller's,
// to be released with KLB_BASE64Free; null on failure. Returns 0 on success.
ZEL_PLATFORM_API int KLB_BASE64Encode(const unsigned char* data, unsigned int length, char** text);
// Strict: no blanks, padding required. Returns the decoded length, or a value below 1 with
// `*data` null. The bytes are released with KLB_BASE64Free.
ZEL_PLATFORM_API int KLB_BASE64Decode(const char* text, unsigned int length, unsigned char** data);
// Releases what the two above handed out. Null is ignored.
ZEL_PLATFORM_API void KLB_BASE64Free(void* memory);
}
