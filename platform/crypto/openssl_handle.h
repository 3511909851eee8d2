// What the OpenSSL-based sources share: owned handles, a scope for calls, and memory that is
// overwritten before it is given back.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <new>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "prax/release_with.h"

using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, ReleaseWith<EVP_CIPHER_CTX_free>>;

// Brackets the OpenSSL calls of one operation. The library is set up without its exit handler,
// because threads may still encrypt while the process exits, and the errors of the operation
// leave the thread's error queue again, which belongs to the host.
class OpenSslScope {
 public:
  OpenSslScope() {
    (void)::OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);  // a failure shows in the calls
    (void)::ERR_set_mark();
  }
  OpenSslScope(const OpenSslScope&) = delete;
  OpenSslScope& operator=(const OpenSslScope&) = delete;
  ~OpenSslScope() { (void)::ERR_pop_to_mark(); }
};

// A secret of fixed size; every copy wipes itself.
template <std::size_t N>
struct SecretArray : std::array<unsigned char, N> {
  SecretArray() { this->fill(0); }
  SecretArray(const SecretArray&) = default;
  SecretArray& operator=(const SecretArray&) = default;
  ~SecretArray() { ::OPENSSL_cleanse(this->data(), N); }
};

// A zero-filled secret of a size known at run time.
class SecretBytes {
 public:
  explicit SecretBytes(std::size_t size) noexcept
      : m_size(size), m_bytes(new (std::nothrow) unsigned char[std::max<std::size_t>(size, 1)]()) {}
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  ~SecretBytes() {
    if (m_bytes) ::OPENSSL_cleanse(m_bytes.get(), m_size);
  }

  // Null when there was no memory, never for a size of 0.
  unsigned char* Data() { return m_bytes.get(); }

 private:
  const std::size_t m_size;
  const std::unique_ptr<unsigned char[]> m_bytes;
};
