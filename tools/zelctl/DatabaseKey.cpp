#include "DatabaseKey.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "DataFiles.h"
#include "StagedDirectory.h"
#include "util/SecureWipe.h"
#include "zel_platform/crypto.h"
#include "zel_platform/zorm.h"

namespace zelctl {
namespace {

// As the library makes the key; docs/files.md describes it.
constexpr std::size_t kLongestLine = 639;
constexpr char kSeparator = '|';
constexpr unsigned int kIterations = 10000;
constexpr unsigned int kKeyBytes = 32;
constexpr std::size_t kLongestSecret = 256;
constexpr char kHexDigits[] = "0123456789abcdefABCDEF";
constexpr char kStoreLog[] = "store.log";

using commonutil::WipeGuard;
using commonutil::WipeString;

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Key management, running for a moment.
class RunningStore {
 public:
  explicit RunningStore(const StagedDirectory& staged)
      : m_code(orb_zorm_service_start_ex(staged.Of(kStoreLog).c_str(),
                                         staged.Of(kKeyStoreFile).c_str(),
                                         staged.Of(kKeyStoreTwinFile).c_str())) {}
  ~RunningStore() { (void)orb_zorm_service_stop(); }  // of no use to anybody afterwards
  RunningStore(const RunningStore&) = delete;
  RunningStore& operator=(const RunningStore&) = delete;

  int Code() const { return m_code; }

 private:
  const int m_code;
};

// What is there once and differs afterwards was rebuilt from its twin.
StoreFileState StateOf(bool wasThere, const std::string& before, const std::string& after) {
  if (!wasThere) return StoreFileState::kMissing;
  return before == after ? StoreFileState::kIntact : StoreFileState::kDamaged;
}

// As much as the library reads: the first line with its line break, up to a NUL.
std::string ReadSaltLine(const std::string& path) {
  std::string line = ReadFile(path).substr(0, kLongestLine);
  const std::size_t lineEnd = line.find('\n');
  if (lineEnd != std::string::npos) line.resize(lineEnd + 1);
  return line.substr(0, line.find('\0'));
}

// The secret, "" when it does not decrypt.
std::string Decrypt(const std::string& hex) {
  unsigned char cipher[kLongestLine + 1] = {};
  (void)orb_cvt_bin(hex.data(), static_cast<unsigned int>(hex.size()), cipher, sizeof(cipher));
  std::string secret(kLongestSecret, '\0');
  const WipeGuard wipe(secret);
  auto length = static_cast<unsigned int>(secret.size());
  if (orb_zorm_decrypt(cipher, static_cast<unsigned int>(hex.size() / 2),
                       reinterpret_cast<unsigned char*>(secret.data()), &length) != 0) {
    return "";
  }
  secret.resize(std::strlen(secret.c_str()));
  return secret;
}

std::string Derive(const std::string& secret, const std::string& salt) {
  unsigned char bytes[kKeyBytes] = {};
  char hex[2 * kKeyBytes + 1] = "";
  const auto* const secretBytes = reinterpret_cast<const unsigned char*>(secret.data());
  const auto* const saltBytes = reinterpret_cast<const unsigned char*>(salt.data());
  const bool derived = orb_pkcs5_derivekey_ex(secretBytes, static_cast<unsigned int>(secret.size()),
                                              kIterations, kKeyBytes, saltBytes,
                                              static_cast<unsigned int>(salt.size()), bytes) == 0 &&
                       orb_cvt_hex(bytes, kKeyBytes, hex, sizeof(hex)) == 0;
  std::string key = derived ? hex : "";
  (void)memset_s(bytes, sizeof(bytes), 0, sizeof(bytes));  // cannot fail on its own memory
  (void)memset_s(hex, sizeof(hex), 0, sizeof(hex));
  return key;
}

// Needs running key management.
KeyState ReadKey(const std::string& line, DatabaseKey* found) {
  if (line.empty()) return KeyState::kSaltMissing;
  const std::size_t bar = line.find(kSeparator);
  if (bar == std::string::npos || bar == 0) return KeyState::kSaltMalformed;
  const std::string hex = line.substr(0, bar);
  std::string secret = Decrypt(hex);
  const WipeGuard wipe(secret);
  if (secret.empty()) {
    const bool isHex = hex.find_first_not_of(kHexDigits) == std::string::npos;
    return isHex ? KeyState::kSaltUnreadable : KeyState::kSaltMalformed;
  }
  found->key = Derive(secret, line.substr(bar + 1));
  const std::size_t end = line.find_last_not_of("\r\n");
  if (end + 1 < line.size()) {
    found->trimmedLine = line.substr(0, end + 1);
    found->trimmedKey = Derive(secret, found->trimmedLine.substr(bar + 1));
  }
  return KeyState::kReady;
}

}  // namespace

DatabaseKey::~DatabaseKey() {
  WipeString(key);
  WipeString(trimmedKey);
}

void FindDatabaseKey(const StagedDirectory& staged, DatabaseKey* found) {
  const std::string store = staged.Of(kKeyStoreFile);
  const std::string twin = staged.Of(kKeyStoreTwinFile);
  const bool hasStore = std::filesystem::exists(store);
  const bool hasTwin = std::filesystem::exists(twin);
  if (!hasStore && !hasTwin) return;
  std::string storeBefore = ReadFile(store);
  const WipeGuard wipeStore(storeBefore);
  std::string twinBefore = ReadFile(twin);
  const WipeGuard wipeTwin(twinBefore);

  const RunningStore running(staged);
  found->code = running.Code();
  if (running.Code() != 0) {
    found->state =
        running.Code() == kZormStoreDamaged ? KeyState::kStoreDamaged : KeyState::kStoreFailed;
    return;
  }
  std::string storeAfter = ReadFile(store);
  const WipeGuard wipeStoreAfter(storeAfter);
  std::string twinAfter = ReadFile(twin);
  const WipeGuard wipeTwinAfter(twinAfter);
  found->store = StateOf(hasStore, storeBefore, storeAfter);
  found->twin = StateOf(hasTwin, twinBefore, twinAfter);
  found->state = ReadKey(ReadSaltLine(staged.Of(kSaltFile)), found);
}

}  // namespace zelctl
