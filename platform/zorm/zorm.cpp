#include "zel_platform/zorm.h"

#include <atomic>
#include <climits>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>

#include "zorm/zorm_cipher.h"
#include "zorm/zorm_ref.h"
#include "zorm/zorm_started.h"
#include "zorm/zorm_store.h"

namespace {

// Beside kZormAlreadyStarted and kZormStoreDamaged.
constexpr int kOk = 0;
constexpr int kInvalidArgument = 1;
constexpr int kStoreUnreadable = 2;
constexpr int kStoreUnwritable = 3;
constexpr int kNotStarted = 4;
constexpr int kTooSmall = 5;
constexpr int kNotGenuine = 6;  // short, altered or made with another key
constexpr int kCipherFailed = 7;
constexpr int kNoMemory = 8;

constexpr unsigned int kLongestPlain = INT_MAX - kSealOverheadBytes;  // OpenSSL counts in int
constexpr std::size_t kKeptCalls = 1000;

int CodeOf(ZormStoreResult result) {
  switch (result) {
    case ZormStoreResult::kReady:
      return kOk;
    case ZormStoreResult::kLocked:
      return kZormAlreadyStarted;
    case ZormStoreResult::kDamaged:
      return kZormStoreDamaged;
    case ZormStoreResult::kUnreadable:
      return kStoreUnreadable;
    case ZormStoreResult::kUnwritable:
      return kStoreUnwritable;
  }
  return kStoreUnwritable;
}

bool NamesAFile(const char* path) {
  return path && *path != '\0' && path[std::strlen(path) - 1] != '/';
}

// What exists only while the service runs: the lock on the store and the key, which wipes itself.
struct OpenStore {
  OpenStore(const char* logFile, const char* storeFile, const char* backupFile)
      : store(logFile ? logFile : "", storeFile, backupFile) {}

  ZormStore store;
  ZormKey key;
};

class KeyService {
 public:
  static KeyService& Instance();

  int Start(const char* logFile, const char* storeFile, const char* backupFile);
  int Stop();
  int Encrypt(const unsigned char* plain, unsigned int plainLength, unsigned char* cipher,
              unsigned int* cipherLength);
  int Decrypt(const unsigned char* cipher, unsigned int cipherLength, unsigned char* plain,
              unsigned int* plainLength);

  void SetStartCodes(const std::vector<int>& codes);
  void SetStopCodes(const std::vector<int>& codes);
  std::vector<ZormCall> Calls();
  void Reset();

 private:
  template <class Body>
  int Recorded(const char* function, Body&& body) noexcept;
  int StartLocked(const char* logFile, const char* storeFile, const char* backupFile);
  int StopLocked();
  int EncryptLocked(const unsigned char* plain, unsigned int plainLength, unsigned char* cipher,
                    unsigned int* cipherLength);
  int DecryptLocked(const unsigned char* cipher, unsigned int cipherLength, unsigned char* plain,
                    unsigned int* plainLength);

  std::mutex m_lock;  // guards the rest; held while a start reads and writes its files
  std::unique_ptr<OpenStore> m_running;  // null while stopped
  std::deque<int> m_startCodes;
  std::deque<int> m_stopCodes;
  std::deque<ZormCall> m_calls;
};

std::atomic<void (*)()> g_onStarted{nullptr};

int TakeCode(std::deque<int>* codes) {
  if (codes->empty()) return kOk;
  const int code = codes->front();
  codes->pop_front();
  return code;
}

KeyService& KeyService::Instance() {
  static KeyService* const instance = new KeyService;  // never destroyed: used until the very end
  return *instance;
}

// The body runs under the lock. The only thing that it can throw is std::bad_alloc.
template <class Body>
int KeyService::Recorded(const char* function, Body&& body) noexcept {
  try {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_calls.push_back({function, kNoMemory});  // first, so that no finished work is reported failed
    if (m_calls.size() > kKeptCalls) m_calls.pop_front();
    return m_calls.back().result = body();
  } catch (...) {
    return kNoMemory;
  }
}

int KeyService::Start(const char* logFile, const char* storeFile, const char* backupFile) {
  const int code = Recorded("start", [&] { return StartLocked(logFile, storeFile, backupFile); });
  const auto onStarted = g_onStarted.load();
  if (code == kOk && onStarted != nullptr) onStarted();
  return code;
}

int KeyService::StartLocked(const char* logFile, const char* storeFile, const char* backupFile) {
  if (const int code = TakeCode(&m_startCodes); code != kOk) return code;
  if (m_running) return kZormAlreadyStarted;
  if (!NamesAFile(storeFile) || !NamesAFile(backupFile)) return kInvalidArgument;
  auto opened = std::make_unique<OpenStore>(logFile, storeFile, backupFile);
  const int result = CodeOf(opened->store.Open(&opened->key));
  if (result == kOk) m_running = std::move(opened);
  return result;
}

int KeyService::Stop() {
  return Recorded("stop", [&] { return StopLocked(); });
}

int KeyService::StopLocked() {
  if (const int code = TakeCode(&m_stopCodes); code != kOk) return code;
  m_running.reset();
  return kOk;
}

int KeyService::Encrypt(const unsigned char* plain, unsigned int plainLength, unsigned char* cipher,
                        unsigned int* cipherLength) {
  return Recorded("encrypt",
                  [&] { return EncryptLocked(plain, plainLength, cipher, cipherLength); });
}

int KeyService::EncryptLocked(const unsigned char* plain, unsigned int plainLength,
                              unsigned char* cipher, unsigned int* cipherLength) {
  if (!m_running) return kNotStarted;
  if ((!plain && plainLength > 0) || plainLength > kLongestPlain) return kInvalidArgument;
  if (!cipher || !cipherLength) return kInvalidArgument;
  const unsigned int sealedLength = plainLength + kSealOverheadBytes;
  if (*cipherLength < sealedLength) return kTooSmall;
  SecretBytes sealed(sealedLength);
  if (!sealed.Data()) return kNoMemory;
  if (!SealText(m_running->key, plain, plainLength, sealed.Data())) return kCipherFailed;
  std::memcpy(cipher, sealed.Data(), sealedLength);
  *cipherLength = sealedLength;
  return kOk;
}

int KeyService::Decrypt(const unsigned char* cipher, unsigned int cipherLength,
                        unsigned char* plain, unsigned int* plainLength) {
  return Recorded("decrypt",
                  [&] { return DecryptLocked(cipher, cipherLength, plain, plainLength); });
}

int KeyService::DecryptLocked(const unsigned char* cipher, unsigned int cipherLength,
                              unsigned char* plain, unsigned int* plainLength) {
  if (!m_running) return kNotStarted;
  if (!cipher || !plain || !plainLength) return kInvalidArgument;
  if (cipherLength < kSealOverheadBytes || cipherLength > INT_MAX) return kNotGenuine;
  const unsigned int openedLength = cipherLength - kSealOverheadBytes;
  if (*plainLength < openedLength) return kTooSmall;
  SecretBytes opened(openedLength);
  if (!opened.Data()) return kNoMemory;
  if (!UnsealText(m_running->key, cipher, cipherLength, opened.Data())) return kNotGenuine;
  std::memcpy(plain, opened.Data(), openedLength);
  *plainLength = openedLength;
  return kOk;
}

void KeyService::SetStartCodes(const std::vector<int>& codes) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_startCodes.assign(codes.begin(), codes.end());
}

void KeyService::SetStopCodes(const std::vector<int>& codes) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_stopCodes.assign(codes.begin(), codes.end());
}

std::vector<ZormCall> KeyService::Calls() {
  const std::lock_guard<std::mutex> hold(m_lock);
  return {m_calls.begin(), m_calls.end()};
}

void KeyService::Reset() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_running.reset();
  m_startCodes.clear();
  m_stopCodes.clear();
  m_calls.clear();
}

}  // namespace

int orb_zorm_service_start_ex(const char* logFile, const char* storeFile, const char* backupFile) {
  return KeyService::Instance().Start(logFile, storeFile, backupFile);
}

int orb_zorm_service_stop(void) { return KeyService::Instance().Stop(); }

int orb_zorm_get_ciper_len(unsigned int plainLength, unsigned int* cipherLength) {
  if (!cipherLength || plainLength > kLongestPlain) return kInvalidArgument;
  *cipherLength = plainLength + kSealOverheadBytes;
  return kOk;
}

int orb_zorm_encrypt(const unsigned char* plain, unsigned int plainLength, unsigned char* cipher,
                     unsigned int* cipherLength) {
  return KeyService::Instance().Encrypt(plain, plainLength, cipher, cipherLength);
}

int orb_zorm_decrypt(const unsigned char* cipher, unsigned int cipherLength, unsigned char* plain,
                     unsigned int* plainLength) {
  return KeyService::Instance().Decrypt(cipher, cipherLength, plain, plainLength);
}

void orb_zorm_on_started(void (*onStarted)()) { g_onStarted.store(onStarted); }

void zorm_ref_set_start_codes(const std::vector<int>& codes) {
  KeyService::Instance().SetStartCodes(codes);
}

void zorm_ref_set_stop_codes(const std::vector<int>& codes) {
  KeyService::Instance().SetStopCodes(codes);
}

std::vector<ZormCall> zorm_ref_calls() { return KeyService::Instance().Calls(); }

void zorm_ref_reset() { KeyService::Instance().Reset(); }
