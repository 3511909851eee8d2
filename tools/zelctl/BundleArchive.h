// The parts of a bundle, and the archive made of them.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "BundleMask.h"

namespace zelctl {

struct BundlePart {
  std::string name;
  std::uint64_t size = 0;
  std::string sha256;
  long long writtenAt = 0;
  std::uint64_t lines = 0;
  std::uint64_t linesLeftOut = 0;
  Removals removals = {};
};

// Keeps the parts in a file without a name, so that their sums are known before the archive begins.
class BundleParts {
 public:
  // Throws std::system_error here and below.
  BundleParts();
  ~BundleParts();
  BundleParts(const BundleParts&) = delete;
  BundleParts& operator=(const BundleParts&) = delete;

  void Begin(const std::string& name, long long writtenAt);
  void Append(const std::string& text);
  BundlePart& End();  // the part that was begun

  const std::vector<BundlePart>& Parts() const { return m_parts; }
  std::uint64_t Bytes() const { return m_bytes; }

  // Makes the archive beside `path` and gives it this name once it is whole. An existing file is
  // replaced only by `force`. `step` is called now and then; when it throws, nothing stays.
  // Returns the archive's size.
  std::uint64_t Write(const std::string& path, bool force, const std::string& manifest,
                      const std::function<void()>& step) const;

 private:
  struct FreeDigest {
    void operator()(EVP_MD_CTX* digest) const { EVP_MD_CTX_free(digest); }
  };

  const int m_descriptor;
  std::uint64_t m_bytes = 0;
  std::unique_ptr<EVP_MD_CTX, FreeDigest> m_digest;
  std::vector<BundlePart> m_parts;
};

}  // namespace zelctl
