#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <map>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "zel_platform/zorm.h"

// A cipher text is a number and stands for the text that was encrypted: the service knows which.
namespace {

using support::Locked;

constexpr unsigned int kOverheadBytes = 28;

constexpr int kCannotStart = 1;
constexpr int kNotStarted = 2;
constexpr int kBadArgument = 3;
constexpr int kTooSmall = 4;
constexpr int kNotGenuine = 5;

using Texts = std::map<std::string, std::string>;  // by cipher text

struct ZormService {
  support::ZormScript script;
  std::vector<std::string> calls;
  std::map<std::string, Texts> stores;  // by path
  Texts* running = nullptr;
  unsigned long lastNumber = 0;
};
using Service = Locked<ZormService>;

int TakeCode(std::deque<int>& codes) {
  if (codes.empty()) return 0;
  const int code = codes.front();
  codes.pop_front();
  return code;
}

// What a start would need to make its store: the nearest directory that exists is writable.
bool CouldBeCreated(const std::string& file) {
  std::error_code error;
  std::filesystem::path place = std::filesystem::absolute(file).parent_path();
  while (!std::filesystem::exists(place, error)) place = place.parent_path();
  return std::filesystem::is_directory(place, error) && ::access(place.c_str(), W_OK) == 0;
}

std::string OrEmpty(const char* text) { return text ? text : ""; }

}  // namespace

int orb_zorm_service_start_ex(const char* logFile, const char* storeFile, const char* backupFile) {
  const std::string store = OrEmpty(storeFile), backup = OrEmpty(backupFile);
  const Service service;
  service->calls.push_back("start " + OrEmpty(logFile) + "|" + store + "|" + backup);
  const int scripted = TakeCode(service->script.startCodes);
  if (scripted == kZormStoreDamaged) service->stores[store].clear();
  if (scripted != 0) return scripted;
  if (service->running) return kZormAlreadyStarted;
  if (store.empty() || backup.empty()) return kCannotStart;
  if (!CouldBeCreated(store) || !CouldBeCreated(backup)) return kCannotStart;
  service->running = &service->stores[store];
  return 0;
}

int orb_zorm_service_stop(void) {
  const Service service;
  service->calls.push_back("stop");
  const int scripted = TakeCode(service->script.stopCodes);
  if (scripted == 0) service->running = nullptr;
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
  if (!service->running) return kNotStarted;
  std::string number = std::to_string(++service->lastNumber);
  number.resize(plainLength + kOverheadBytes, ' ');
  if (*cipherLength < number.size()) return kTooSmall;
  std::memcpy(cipher, number.data(), number.size());
  *cipherLength = static_cast<unsigned int>(number.size());
  (*service->running)[number].assign(plain, plain + plainLength);
  return 0;
}

int orb_zorm_decrypt(const unsigned char* cipher, unsigned int cipherLength, unsigned char* plain,
                     unsigned int* plainLength) {
  const Service service;
  service->calls.push_back("decrypt");
  if (!service->running) return kNotStarted;
  const auto found = service->running->find(std::string(cipher, cipher + cipherLength));
  if (found == service->running->end()) return kNotGenuine;
  const std::string& text = found->second;
  if (*plainLength < text.size()) return kTooSmall;
  std::memcpy(plain, text.data(), text.size());
  *plainLength = static_cast<unsigned int>(text.size());
  return 0;
}

namespace support {

void SetZormScript(const ZormScript& script) {
  const Service service;
  service->script = script;
  service->calls.clear();
  service->running = nullptr;
}
std::vector<std::string> ZormCalls() { return Service()->calls; }
void ResetZorm() { *Service() = {}; }

}  // namespace support
