// Authenticated encryption of small texts: AES-256-GCM with a random 12-byte nonce.
// A sealed text is the nonce, the encrypted bytes and the 16-byte tag. Any thread.
#pragma once

#include "crypto/openssl_handle.h"

constexpr unsigned int kZormKeyBytes = 32;
using ZormKey = SecretArray<kZormKeyBytes>;

constexpr unsigned int kSealNonceBytes = 12;
constexpr unsigned int kSealTagBytes = 16;
constexpr unsigned int kSealOverheadBytes = kSealNonceBytes + kSealTagBytes;

// Both take at most INT_MAX bytes and write to `out` as they go: on false its content is
// neither complete nor to be trusted.
[[nodiscard]] bool SealText(const ZormKey& key, const unsigned char* plain, unsigned int length,
                            unsigned char* out);
// Needs at least kSealOverheadBytes. False for a text that is altered or made with another key.
[[nodiscard]] bool UnsealText(const ZormKey& key, const unsigned char* sealed, unsigned int length,
                              unsigned char* out);
