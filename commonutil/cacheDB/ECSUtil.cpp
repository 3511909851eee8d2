#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cacheDB/ECSData.h"
#include "util/FileHandle.h"
#include "util/Log.h"
#include "util/SecureWipe.h"
#include "zel_platform/crypto.h"
#include "zel_platform/prax.h"
#include "zel_platform/securec.h"
#include "zel_platform/zorm.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/ECSData";

constexpr char kSaltFile[] = "sdkcache_config.db";  // a plain text file despite its name
constexpr char kZormLogFile[] = "native_sdk.txt";
constexpr char kZormStoreFile[] = "zorm/zormStore.dat";
constexpr char kZormStoreFileBak[] = "zorm/zormStore_bak.dat";

constexpr std::size_t kPathBytes = 256;
constexpr std::size_t kPlainBytes = 256;
constexpr std::size_t kSaltLineBytes = 640;  // with the terminator
constexpr unsigned int kSaltFileMode = 0640;

constexpr unsigned int kKeyIterations = 10000;
constexpr int kKeyBytes = 32;
constexpr char kHexDigits[] = "0123456789ABCDEF";

// Passes `code` on; logs it first when a bounded copy or wipe failed.
errno_t Checked(errno_t code) {
  if (code != 0) ZEL_LOG(kError) << "secure function return err: " << code;
  return code;
}

// A text buffer that may hold a secret: zeroed at its start, wiped at its end.
template <std::size_t Size>
class SecretText {
 public:
  SecretText() = default;
  ~SecretText() { (void)Checked(memset_s(m_text, Size, 0, Size)); }  // a failure is in the log
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;

  char* Text() { return m_text; }
  unsigned char* Bytes() { return reinterpret_cast<unsigned char*>(m_text); }
  // Empty when `text` does not fit.
  void Assign(const std::string& text) { (void)Checked(strcpy_s(m_text, Size, text.c_str())); }
  unsigned int Length() const { return PRAX_StrLen(m_text); }
  // Up to the first NUL; the content need not have one.
  std::string ToString() const { return std::string(m_text, strnlen(m_text, Size)); }

 private:
  char m_text[Size] = {};
};

// Platform memory that may hold a secret: zeroed, wiped before it is freed, null for a size
// that is 0 or cannot be had.
class PlatformBuffer {
 public:
  explicit PlatformBuffer(std::size_t size) : m_memory(PRAX_MemMallocS(size)), m_size(size) {}
  ~PlatformBuffer() {
    if (m_memory == nullptr) return;
    (void)memset_s(m_memory, m_size, 0, m_size);  // cannot fail on its own memory
    PRAX_MemFreeD(m_memory);
  }
  PlatformBuffer(const PlatformBuffer&) = delete;
  PlatformBuffer& operator=(const PlatformBuffer&) = delete;

  bool IsNull() const { return m_memory == nullptr; }
  unsigned char* Bytes() { return static_cast<unsigned char*>(m_memory); }
  char* Text() { return static_cast<char*>(m_memory); }

 private:
  void* m_memory;
  std::size_t m_size;
};

// Room for `length` bytes as hex digits and a NUL.
std::size_t HexBytes(std::size_t length) { return 2 * length + 1; }

// Derived key bytes, wiped before they are freed.
struct WipeAndFree {
  void operator()(unsigned char* bytes) const {
    (void)memset_s(bytes, kKeyBytes, 0, kKeyBytes);  // cannot fail on its own memory
    std::free(bytes);
  }
};

int RemoveStore(const std::string& path) {
  const int result = PRAX_Remove(path.c_str());
  // The text names the backup for either file.
  if (result != 0) {
    ZEL_LOG_MILESTONE(kError) << "PRAX_Remove m_zormStoreFileBak, err: " << result;
  }
  return result;
}

}  // namespace

std::string AsDirectory(const std::string& path) {
  return path.empty() || path.back() != '/' ? path + "/" : path;
}

ECSUtil& ECSUtil::GetInst() {
  static ECSUtil& instance = *new ECSUtil;
  return instance;
}

void ECSUtil::SetDBPath(const std::string& path) { dbPath = path; }

std::string ECSUtil::GetDBPath() const { return dbPath; }

void ECSUtil::SetLogPath(const std::string& path) { logPath = path; }

std::string ECSUtil::GetLogPath() const { return logPath; }

std::string ECSUtil::GetConfigPath() const { return dbPath + kSaltFile; }

bool ECSUtil::Exists(const std::string& path) const {
  PRAX_STAT status;
  if (PRAX_Stat(path.c_str(), &status) == 0) return true;
  const int error = PRAX_GetLastErr();
  return error != ENOENT && error != ENOTDIR;
}

bool ECSUtil::DeleteDBFile(const std::string& path) const { return PRAX_Remove(path.c_str()) == 0; }

int ECSUtil::StartZORM() {
  const std::string database = AsDirectory(dbPath);
  const std::string logFile = AsDirectory(logPath) + kZormLogFile;
  m_zormStoreFile = database + kZormStoreFile;
  m_zormStoreFileBak = database + kZormStoreFileBak;

  char log[kPathBytes] = {};
  char store[kPathBytes] = {};
  char backup[kPathBytes] = {};
  const errno_t failed = strcpy_s(log, sizeof log, logFile.c_str()) +
                         strcpy_s(store, sizeof store, m_zormStoreFile.c_str()) +
                         strcpy_s(backup, sizeof backup, m_zormStoreFileBak.c_str());
  // Goes on with an empty path, which key management refuses.
  if (failed != 0) ZEL_LOG_MILESTONE(kError) << "strcpy_s error, err = " << failed;
  return orb_zorm_service_start_ex(log, store, backup);
}

int ECSUtil::StopZORM() const { return orb_zorm_service_stop(); }

int ECSUtil::RemoveZormStoreFile() const {
  (void)RemoveStore(m_zormStoreFile);  // only the backup's result counts
  return RemoveStore(m_zormStoreFileBak);
}

std::string ECSUtil::GetRealRandom(int bytes) const {
  const unsigned int length = bytes > 0 ? static_cast<unsigned int>(bytes) : 0;
  PlatformBuffer random(length);
  if (random.IsNull()) {
    ZEL_LOG(kError) << "pRandBuf is null!";
    return {};
  }
  if (ORB_CPYPT_RealRandom(random.Bytes(), length) != 0) {
    ZEL_LOG(kError) << "ORB_CPYPT_RealRandom error!";
    return {};
  }
  PlatformBuffer text(HexBytes(length));
  if (text.IsNull()) {
    ZEL_LOG(kError) << "pRandOut is null!";
    return {};
  }
  // A failed conversion leaves the text empty.
  (void)orb_cvt_hex(random.Bytes(), length, text.Text(),
                    static_cast<unsigned int>(HexBytes(length)));
  return text.Text();
}

std::string ECSUtil::EncryptZorm(const std::string& plain) const {
  SecretText<kPlainBytes> input;
  input.Assign(plain);
  const unsigned int length = input.Length();

  unsigned int cipherLength = 0;
  int result = orb_zorm_get_ciper_len(length, &cipherLength);
  if (result != 0) {
    ZEL_LOG(kError) << "orb_zorm_get_ciper_len failed, ret: " << result;
    return {};
  }
  PlatformBuffer cipher(cipherLength);
  if (cipher.IsNull()) {
    ZEL_LOG(kError) << "PRAX_MemMallocSetNull pucCipherText failed";
    return {};
  }
  result = orb_zorm_encrypt(input.Bytes(), length, cipher.Bytes(), &cipherLength);
  if (result != 0) {
    ZEL_LOG(kError) << "orb_zorm_encrypt failed, ret: " << result;
    return {};
  }
  PlatformBuffer text(HexBytes(cipherLength));
  if (text.IsNull()) {
    ZEL_LOG(kError) << "MELD_MALLOC pcCipherString failed";
    return {};
  }
  // A failed conversion leaves the text empty.
  (void)orb_cvt_hex(cipher.Bytes(), cipherLength, text.Text(),
                    static_cast<unsigned int>(HexBytes(cipherLength)));
  return text.Text();
}

std::string ECSUtil::DecryptZorm(const std::string& cipherHex) const {
  SecretText<kSaltLineBytes> hex;
  hex.Assign(cipherHex);
  const unsigned int length = hex.Length();
  if (length == 0) {
    ZEL_LOG(kError) << "ciperText length is 0";
    return {};
  }
  SecretText<kSaltLineBytes> binary;
  SecretText<kPlainBytes> plain;
  unsigned int plainLength = kPlainBytes;
  // Text that is no hex becomes a cipher text that does not decrypt.
  (void)orb_cvt_bin(hex.Text(), length, binary.Bytes(), kSaltLineBytes);
  const int result = orb_zorm_decrypt(binary.Bytes(), length / 2, plain.Bytes(), &plainLength);
  if (result != 0) {
    ZEL_LOG(kError) << "orb_zorm_decrypt failed. ret: " << result;
    return {};
  }
  return plain.ToString();
}

std::string ECSUtil::GetDBKeySalt() const {
  std::string line;
  (void)ReadDBKeySalt(line);
  return line;
}

bool ECSUtil::ReadDBKeySalt(std::string& line) const {
  line.clear();
  const std::string path = GetConfigPath();
  const FileHandle file(PRAX_Fopen(path.c_str(), "rb"));
  if (file == nullptr) return !Exists(path);
  char text[kSaltLineBytes] = {};
  if (std::fgets(text, sizeof text, file.get()) == nullptr) return std::ferror(file.get()) == 0;
  line = text;
  return true;
}

void ECSUtil::WriteLocalConfigGUID(const std::string& line) const {
  const std::string path = GetConfigPath();
  if (PRAX_ReplaceFile(path.c_str(), line.data(), line.size(), kSaltFileMode) == 0) return;
  // A directory that takes no new file may still let its old one be written. What holds the line
  // already, or cannot be read now, is left alone: on a full disk it would be emptied. Failures
  // stay silent: the next start makes a new secret.
  std::string held;
  if (ReadDBKeySalt(held) && held != line) {
    const FileHandle file(PRAX_Fopen(path.c_str(), "wb"));
    if (file != nullptr) (void)PRAX_Fwrite(line.data(), 1, line.size(), file.get());
  }
  (void)PRAX_Chmod(path.c_str(), kSaltFileMode);
}

void ECSUtil::SetDBKeySalt(const std::string& random, const std::string& salt,
                           const std::string& line) {
  WriteLocalConfigGUID(line);
  dbRandom = random;
  dbSalt = salt;
}

void ECSUtil::ForgetSecret() { WipeString(dbRandom); }

std::string ECSUtil::GetPwdKeyFromORB() const {
  char hex[2 * kKeyBytes + 1];
  if (memset_s(hex, sizeof hex, 0, sizeof hex) != 0) ZEL_LOG(kError) << "init aucHex error.";
  const std::unique_ptr<unsigned char, WipeAndFree> derived(
      static_cast<unsigned char*>(std::malloc(kKeyBytes)));
  if (derived == nullptr) {
    ZEL_LOG(kError) << "pucDerivedKey null!";
    return {};
  }
  if (memset_s(derived.get(), kKeyBytes, 0, kKeyBytes) != 0) {
    ZEL_LOG(kError) << "init pucDerivedKey error.";
  }
  const int result =
      orb_pkcs5_derivekey_ex(reinterpret_cast<const unsigned char*>(dbRandom.data()),
                             static_cast<unsigned int>(dbRandom.size()), kKeyIterations, kKeyBytes,
                             reinterpret_cast<const unsigned char*>(dbSalt.data()),
                             static_cast<unsigned int>(dbSalt.size()), derived.get());
  if (result != 0) {
    ZEL_LOG_MILESTONE(kError) << "orb_pkcs5_derivekey_ex error.";
    return {};
  }
  // At error level on purpose: this milestone is to be in every log.
  ZEL_LOG_MILESTONE(kError) << "orb_pkcs5_derivekey_ex success.";
  int hexLength = 0;
  StrToHex(reinterpret_cast<const char*>(derived.get()), kKeyBytes, hex, &hexLength);
  std::string key(hex, static_cast<std::size_t>(hexLength));
  (void)memset_s(hex, sizeof hex, 0, sizeof hex);  // cannot fail on its own memory
  return key;
}

void ECSUtil::StrToHex(const char* in, int length, char* out, int* outLength) const {
  constexpr unsigned int kSignBit = 0x80000000U;
  *outLength = static_cast<int>((2U * static_cast<unsigned int>(length)) & ~kSignBit);
  for (int i = 0; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(in[i]);
    *out++ = kHexDigits[byte >> 4];
    *out++ = kHexDigits[byte & 0x0F];
  }
}

}  // namespace commonutil
