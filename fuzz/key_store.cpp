// The pair of files that keep the secret key, and texts encrypted with it.
#include <cstdio>

#include "FuzzInput.h"
#include "support/TempDir.h"
#include "zel_platform/zorm.h"

namespace {

constexpr std::size_t kStoreBytes = 72;

void Put(const std::string& path, bool isThere, const std::string& content) {
  std::remove(path.c_str());
  if (isThere) support::WriteWholeFile(path, content);
}

void Decrypt(const std::string& cipher) {
  unsigned char plain[256];
  unsigned length = sizeof(plain);
  (void)orb_zorm_decrypt(reinterpret_cast<const unsigned char*>(cipher.data()),
                         static_cast<unsigned>(cipher.size()), plain, &length);
  Require(length <= sizeof(plain), "a plain text keeps to its buffer");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const support::TempDir directory;
  static const std::string store = directory.File("store");
  static const std::string backup = directory.File("backup");
  FuzzInput input(data, size);
  const unsigned there = input.TakeByte();
  const std::size_t split = input.TakeByte();
  const std::string content = input.Rest();
  const std::string head = content.substr(0, split);
  const std::string tail = content.substr(head.size());
  Put(store, (there & 1U) != 0, head);
  Put(backup, (there & 2U) != 0, (there & 4U) != 0 ? tail : head);

  const int result = orb_zorm_service_start_ex("/dev/null", store.c_str(), backup.c_str());
  if (result == 0) {
    Decrypt(content);
    const std::string key = support::ReadWholeFile(store);
    Require(key.size() == kStoreBytes && key == support::ReadWholeFile(backup),
            "both files hold the key");
    Require((there & 1U) == 0 || head.size() != kStoreBytes || key == head || (there & 2U) != 0,
            "a key is replaced by its backup only");
    Require(orb_zorm_service_stop() == 0, "the service stops");
    return 0;
  }
  (void)orb_zorm_service_stop();
  Require(result == kZormStoreDamaged, "files that can be read are intact or damaged");
  Require((there & 1U) == 0 || support::ReadWholeFile(store) == head, "a damaged file stays");
  return 0;
}
