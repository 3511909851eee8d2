// Where the key of the cache database comes from, and the life of the database file.
//
// The key is never stored. Beside the database lies the salt file, one line without a
// terminator: a random secret encrypted by key management, "|", a salt. The key is derived
// from the decrypted secret and the salt. Whatever of this is lost or damaged, a new secret
// is made and the database starts empty: the cache is disposable.
//
// Both classes serve the initialisation alone, one thread at a time, and take no lock.
#pragma once

#include <exception>
#include <string>

namespace commonutil {

// `path` with a "/" at its end.
std::string AsDirectory(const std::string& path);

class ECSDataException : public std::exception {
 public:
  const char* what() const noexcept override;
};

// The paths, the secret, and the calls into key management and crypto. Failures are logged
// and come back as an empty text.
class ECSUtil {
 public:
  static ECSUtil& GetInst();
  ECSUtil(const ECSUtil&) = delete;
  ECSUtil& operator=(const ECSUtil&) = delete;

  // Directories. The database directory ends in "/".
  void SetDBPath(const std::string& path);
  std::string GetDBPath() const;
  void SetLogPath(const std::string& path);
  std::string GetLogPath() const;
  // The salt file.
  std::string GetConfigPath() const;

  // True also when it cannot be told: what is missing is made anew.
  bool Exists(const std::string& path) const;
  bool DeleteDBFile(const std::string& path) const;

  // Return key management's own result.
  int StartZORM();
  int StopZORM() const;
  // Returns the result for the backup copy.
  int RemoveZormStoreFile() const;

  // 2 * `bytes` hex digits.
  std::string GetRealRandom(int bytes) const;
  // The cipher text as hex digits. Texts up to 255 bytes.
  std::string EncryptZorm(const std::string& plain) const;
  // Takes up to 639 hex digits; the result ends at the first NUL of the plain text.
  std::string DecryptZorm(const std::string& cipherHex) const;

  // The line of the salt file, up to 639 bytes of it.
  std::string GetDBKeySalt() const;
  // The same; false when there is a file that cannot be read.
  [[nodiscard]] bool ReadDBKeySalt(std::string& line) const;
  // Replaces the salt file; a crash leaves either the old line or the new one.
  void WriteLocalConfigGUID(const std::string& line) const;
  // Writes `line` and keeps what it stands for.
  void SetDBKeySalt(const std::string& random, const std::string& salt, const std::string& line);
  // Overwrites the secret: the key has been derived.
  void ForgetSecret();
  // The database key: 64 upper-case hex digits. Takes the time of 10000 hash rounds.
  std::string GetPwdKeyFromORB() const;
  // Two upper-case hex digits a byte, no NUL behind them. `*outLength` is twice `length`
  // without its sign bit; a length below 1 writes no digit.
  void StrToHex(const char* in, int length, char* out, int* outLength) const;

 private:
  ECSUtil() = default;

  std::string dbRandom;  // hex digits of the secret
  std::string dbSalt;    // hex digits
  std::string dbPath;
  std::string logPath;
  std::string m_zormStoreFile;
  std::string m_zormStoreFileBak;
};

// Opens, tests and discards the database file, under the registered name of the cache.
class ECSData {
 public:
  static ECSData& GetInst();
  ECSData(const ECSData&) = delete;
  ECSData& operator=(const ECSData&) = delete;

  // Creates file, table and index where they are missing. False when the file is there and
  // does not open with `key`. Spelling is part of the interface.
  bool InitializeSDKCaCheDB(std::string dbFile, std::string key);
  // Whether the file is there and opens with `key`.
  bool CheckSDKCacheDB(std::string dbFile, std::string key);
  // Whether CheckSDKCacheDB failed last for want of something of the machine: the file may be
  // sound.
  bool IsUnknown() const;
  // Closes, unregisters and deletes the database. True also when the file stays.
  bool FinalizeSDKCacheDB(std::string dbFile) const;

 private:
  ECSData();
};

}  // namespace commonutil
