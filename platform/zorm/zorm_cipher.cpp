#include "zorm/zorm_cipher.h"

#include <cstring>

#include "zel_platform/crypto.h"

bool SealText(const ZormKey& key, const unsigned char* plain, unsigned int length,
              unsigned char* out) {
  unsigned char* const nonce = out;
  unsigned char* const body = out + kSealNonceBytes;
  unsigned char* const tag = body + length;
  if (ORB_CPYPT_RealRandom(nonce, kSealNonceBytes) != 0) return false;
  const OpenSslScope scope;
  const CipherCtx context(::EVP_CIPHER_CTX_new());
  int written = 0;
  return context &&
         ::EVP_EncryptInit_ex(context.get(), ::EVP_aes_256_gcm(), nullptr, key.data(), nonce) ==
             1 &&
         (length == 0 || ::EVP_EncryptUpdate(context.get(), body, &written, plain,
                                             static_cast<int>(length)) == 1) &&
         ::EVP_EncryptFinal_ex(context.get(), body + written, &written) == 1 &&
         ::EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, kSealTagBytes, tag) == 1;
}

bool UnsealText(const ZormKey& key, const unsigned char* sealed, unsigned int length,
                unsigned char* out) {
  const unsigned char* const body = sealed + kSealNonceBytes;
  const unsigned int bodyLength = length - kSealOverheadBytes;
  unsigned char tag[kSealTagBytes];  // the interface of the tag takes no constant
  std::memcpy(tag, body + bodyLength, sizeof(tag));
  const OpenSslScope scope;
  const CipherCtx context(::EVP_CIPHER_CTX_new());
  int written = 0;
  return context &&
         ::EVP_DecryptInit_ex(context.get(), ::EVP_aes_256_gcm(), nullptr, key.data(), sealed) ==
             1 &&
         (bodyLength == 0 || ::EVP_DecryptUpdate(context.get(), out, &written, body,
                                                 static_cast<int>(bodyLength)) == 1) &&
         ::EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, kSealTagBytes, tag) == 1 &&
         ::EVP_DecryptFinal_ex(context.get(), out + written, &written) == 1;
}
