#include <unistd.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "zel_platform/zorm.h"

// A cipher text is a nonce, the masked text and a check value over both. Every step depends on
// the key, but nothing here is secret: it only has to notice what the real component notices.
namespace {

constexpr unsigned int kNonceBytes = 12;
constexpr unsigned int kCheckBytes = 16;
constexpr unsigned int kOverheadBytes = kNonceBytes + kCheckBytes;

constexpr int kCannotStart = 1;
constexpr int kNotStarted = 2;
constexpr int kBadArgument = 3;
constexpr int kTooSmall = 4;
constexpr int kNotGenuine = 5;

struct ZormService {
  std::mutex lock;
  support::ZormScript script;
  std::vector<std::string> calls;
  std::map<std::string, std::uint64_t> keys;  // by store path
  std::optional<std::uint64_t> runningKey;
  std::uint64_t lastNumber = 0;  // the source of keys and nonces, never used twice
};

ZormService& Service() {
  static ZormService* const instance = new ZormService;
  return *instance;
}

// Spreads a number over 64 bits (the finaliser of SplitMix64).
std::uint64_t Mix(std::uint64_t value) {
  value += 0x9E3779B97F4A7C15u;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
  return value ^ (value >> 31);
}

// Any change of a single byte changes the result for certain, other changes very likely.
std::uint64_t Digest(std::uint64_t seed, const unsigned char* bytes, std::size_t length) {
  std::uint64_t digest = Mix(seed);
  for (std::size_t i = 0; i < length; ++i) digest = (digest ^ bytes[i]) * 0x100000001B3u;
  return Mix(digest);
}

void PutNumber(std::uint64_t number, unsigned char* out) {
  for (int i = 0; i < 8; ++i) out[i] = static_cast<unsigned char>(number >> (8 * i));
}

std::array<unsigned char, kCheckBytes> CheckValue(std::uint64_t key, const unsigned char* bytes,
                                                  std::size_t length) {
  std::array<unsigned char, kCheckBytes> check;
  PutNumber(Digest(key, bytes, length), check.data());
  PutNumber(Digest(~key, bytes, length), check.data() + 8);
  return check;
}

// Its own inverse.
void MaskBytes(std::uint64_t key, const unsigned char* nonce, const unsigned char* in,
               std::size_t length, unsigned char* out) {
  const std::uint64_t start = Digest(key + 1, nonce, kNonceBytes);
  for (std::size_t i = 0; i < length; ++i) {
    out[i] = static_cast<unsigned char>(in[i] ^ Mix(start + i));
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

std::uint64_t KeyOf(ZormService& service, const std::string& storeFile) {
  const auto [entry, isNew] = service.keys.try_emplace(storeFile, 0);
  if (isNew) entry->second = Mix(++service.lastNumber);
  return entry->second;
}

bool IsGenuine(std::uint64_t key, const unsigned char* cipher, unsigned int cipherLength) {
  const unsigned int checked = cipherLength - kCheckBytes;
  const auto check = CheckValue(key, cipher, checked);
  return std::memcmp(check.data(), cipher + checked, kCheckBytes) == 0;
}

std::string OrEmpty(const char* text) { return text ? text : ""; }

}  // namespace

int orb_zorm_service_start_ex(const char* logFile, const char* storeFile, const char* backupFile) {
  const std::string store = OrEmpty(storeFile), backup = OrEmpty(backupFile);
  ZormService& service = Service();
  std::lock_guard<std::mutex> hold(service.lock);
  service.calls.push_back("start " + OrEmpty(logFile) + "|" + store + "|" + backup);
  const int scripted = TakeCode(service.script.startCodes);
  if (scripted == kZormStoreDamaged) service.keys.erase(store);
  if (scripted != 0) return scripted;
  if (service.runningKey) return kZormAlreadyStarted;
  if (store.empty() || backup.empty()) return kCannotStart;
  if (!CouldBeCreated(store) || !CouldBeCreated(backup)) return kCannotStart;
  service.runningKey = KeyOf(service, store);
  return 0;
}

int orb_zorm_service_stop(void) {
  ZormService& service = Service();
  std::lock_guard<std::mutex> hold(service.lock);
  service.calls.push_back("stop");
  const int scripted = TakeCode(service.script.stopCodes);
  if (scripted == 0) service.runningKey.reset();
  return scripted;
}

int orb_zorm_get_ciper_len(unsigned int plainLength, unsigned int* cipherLength) {
  if (!cipherLength || plainLength > UINT_MAX - kOverheadBytes) return kBadArgument;
  *cipherLength = plainLength + kOverheadBytes;
  return 0;
}

int orb_zorm_encrypt(const unsigned char* plain, unsigned int plainLength, unsigned char* cipher,
                     unsigned int* cipherLength) {
  ZormService& service = Service();
  std::lock_guard<std::mutex> hold(service.lock);
  service.calls.push_back("encrypt");
  if (service.script.encryptCode != 0) return service.script.encryptCode;
  if (!service.runningKey) return kNotStarted;
  if ((!plain && plainLength != 0) || !cipher || !cipherLength) return kBadArgument;
  if (*cipherLength < kOverheadBytes || *cipherLength - kOverheadBytes < plainLength) {
    return kTooSmall;
  }
  const std::uint64_t key = *service.runningKey;
  const unsigned int checked = kNonceBytes + plainLength;
  std::memset(cipher, 0, kNonceBytes);
  PutNumber(++service.lastNumber, cipher);
  MaskBytes(key, cipher, plain, plainLength, cipher + kNonceBytes);
  const auto check = CheckValue(key, cipher, checked);
  std::memcpy(cipher + checked, check.data(), kCheckBytes);
  *cipherLength = checked + kCheckBytes;
  return 0;
}

int orb_zorm_decrypt(const unsigned char* cipher, unsigned int cipherLength, unsigned char* plain,
                     unsigned int* plainLength) {
  ZormService& service = Service();
  std::lock_guard<std::mutex> hold(service.lock);
  service.calls.push_back("decrypt");
  if (service.script.decryptCode != 0) return service.script.decryptCode;
  if (!service.runningKey) return kNotStarted;
  if (!cipher || !plain || !plainLength) return kBadArgument;
  if (cipherLength < kOverheadBytes) return kNotGenuine;
  const std::uint64_t key = *service.runningKey;
  if (!IsGenuine(key, cipher, cipherLength)) return kNotGenuine;
  const unsigned int length = cipherLength - kOverheadBytes;
  if (*plainLength < length) return kTooSmall;
  MaskBytes(key, cipher, cipher + kNonceBytes, length, plain);
  *plainLength = length;
  return 0;
}

namespace support {

void SetZormScript(const ZormScript& script) {
  ZormService& service = Service();
  std::lock_guard<std::mutex> hold(service.lock);
  service.script = script;
  service.calls.clear();
  service.runningKey.reset();
}

std::vector<std::string> ZormCalls() {
  ZormService& service = Service();
  std::lock_guard<std::mutex> hold(service.lock);
  return service.calls;
}

void ForgetZormKeys() {
  ZormService& service = Service();
  std::lock_guard<std::mutex> hold(service.lock);
  service.keys.clear();
}

void ResetZorm() {
  SetZormScript({});
  ForgetZormKeys();
}

}  // namespace support
