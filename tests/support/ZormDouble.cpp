#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <map>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "zel_platform/crypto.h"
#include "zel_platform/zorm.h"

// A cipher text is a nonce, the masked text and a check value over both.
namespace {

using support::Locked;

constexpr unsigned int kNonceBytes = 12;
constexpr unsigned int kCheckBytes = 16;
constexpr unsigned int kOverheadBytes = kNonceBytes + kCheckBytes;

constexpr int kCannotStart = 1;
constexpr int kNotStarted = 2;
constexpr int kBadArgument = 3;
constexpr int kTooSmall = 4;
constexpr int kNotGenuine = 5;

struct ZormService {
  support::ZormScript script;
  std::vector<std::string> calls;
  std::map<std::string, std::string> keys;  // by store path
  std::string runningKey;                   // empty: not running
  unsigned long lastNumber = 0;             // the source of keys and nonces, never used twice
};
using Service = Locked<ZormService>;

// So many bytes that depend on every byte of the key and the text.
std::string Derived(const std::string& key, const unsigned char* text, unsigned int length,
                    unsigned int wanted) {
  std::string bytes(wanted + 1, '\0');  // a key of no bytes is refused
  (void)orb_pkcs5_derivekey_ex(
      text, length, 1, wanted + 1, reinterpret_cast<const unsigned char*>(key.data()),
      static_cast<unsigned int>(key.size()), reinterpret_cast<unsigned char*>(bytes.data()));
  bytes.pop_back();
  return bytes;
}

// Its own inverse.
void MaskBytes(const std::string& key, const unsigned char* nonce, const unsigned char* in,
               unsigned int length, unsigned char* out) {
  const std::string mask = Derived("m" + key, nonce, kNonceBytes, length);
  for (unsigned int i = 0; i < length; ++i) {
    out[i] = static_cast<unsigned char>(in[i] ^ static_cast<unsigned char>(mask[i]));
  }
}

int TakeCode(std::deque<int>& codes) {
  if (codes.empty()) return 0;
  const int code = codes.front();
  codes.pop_front();
  return code;
}

// What a start would need to make its store: the nearest directory that exists is writable.
bool CouldBeCreated(const std::string& file) {
  std::error_code error;
  std::filesystem::path place = std::filesystem::path(file).parent_path();
  while (!place.empty() && !std::filesystem::exists(place, error)) {
    if (error) return false;  // a file stands where a directory is needed
    place = place.parent_path();
  }
  if (place.empty()) place = ".";
  return std::filesystem::is_directory(place, error) && ::access(place.c_str(), W_OK) == 0;
}

std::string OrEmpty(const char* text) { return text ? text : ""; }

}  // namespace

int orb_zorm_service_start_ex(const char* logFile, const char* storeFile, const char* backupFile) {
  const std::string store = OrEmpty(storeFile), backup = OrEmpty(backupFile);
  const Service service;
  service->calls.push_back("start " + OrEmpty(logFile) + "|" + store + "|" + backup);
  const int scripted = TakeCode(service->script.startCodes);
  if (scripted == kZormStoreDamaged) service->keys.erase(store);
  if (scripted != 0) return scripted;
  if (!service->runningKey.empty()) return kZormAlreadyStarted;
  if (store.empty() || backup.empty()) return kCannotStart;
  if (!CouldBeCreated(store) || !CouldBeCreated(backup)) return kCannotStart;
  std::string& key = service->keys[store];
  if (key.empty()) key = std::to_string(++service->lastNumber);
  service->runningKey = key;
  return 0;
}

int orb_zorm_service_stop(void) {
  const Service service;
  service->calls.push_back("stop");
  const int scripted = TakeCode(service->script.stopCodes);
  if (scripted == 0) service->runningKey.clear();
  return scripted;
}

int orb_zorm_get_ciper_len(unsigned int plainLength, unsigned int* cipherLength) {
  if (!cipherLength || plainLength > UINT_MAX - kOverheadBytes) return kBadArgument;
  *cipherLength = plainLength + kOverheadBytes;
  return 0;
}

int orb_zorm_encrypt(const unsigned char* plain, unsigned int plainLength, unsigned char* cipher,
                     unsigned int* cipherLength) {
  const Service service;
  service->calls.push_back("encrypt");
  if (service->script.encryptCode != 0) return service->script.encryptCode;
  if (service->runningKey.empty()) return kNotStarted;
  if ((!plain && plainLength != 0) || !cipher || !cipherLength) return kBadArgument;
  if (*cipherLength < kOverheadBytes || *cipherLength - kOverheadBytes < plainLength) {
    return kTooSmall;
  }
  const unsigned int checked = kNonceBytes + plainLength;
  std::memset(cipher, 0, kNonceBytes);
  std::memcpy(cipher, &++service->lastNumber, sizeof(service->lastNumber));
  MaskBytes(service->runningKey, cipher, plain, plainLength, cipher + kNonceBytes);
  const std::string check = Derived(service->runningKey, cipher, checked, kCheckBytes);
  std::memcpy(cipher + checked, check.data(), kCheckBytes);
  *cipherLength = checked + kCheckBytes;
  return 0;
}

int orb_zorm_decrypt(const unsigned char* cipher, unsigned int cipherLength, unsigned char* plain,
                     unsigned int* plainLength) {
  const Service service;
  service->calls.push_back("decrypt");
  if (service->script.decryptCode != 0) return service->script.decryptCode;
  if (service->runningKey.empty()) return kNotStarted;
  if (!cipher || !plain || !plainLength) return kBadArgument;
  if (cipherLength < kOverheadBytes) return kNotGenuine;
  const unsigned int checked = cipherLength - kCheckBytes, length = checked - kNonceBytes;
  const std::string check = Derived(service->runningKey, cipher, checked, kCheckBytes);
  if (std::memcmp(check.data(), cipher + checked, kCheckBytes) != 0) return kNotGenuine;
  if (*plainLength < length) return kTooSmall;
  MaskBytes(service->runningKey, cipher, cipher + kNonceBytes, length, plain);
  *plainLength = length;
  return 0;
}

namespace support {

void SetZormScript(const ZormScript& script) {
  const Service service;
  service->script = script;
  service->calls.clear();
  service->runningKey.clear();
}

std::vector<std::string> ZormCalls() { return Service()->calls; }

void ResetZorm() { *Service() = {}; }

}  // namespace support
