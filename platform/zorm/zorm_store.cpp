#include "zorm/zorm_store.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "zel_platform/crypto.h"

namespace {

// A store file: the magic bytes, which end in the format's version, the key, and the SHA-256
// of both.
constexpr unsigned char kMagic[] = {'Z', 'E', 'L', 'K', 'E', 'Y', 'S', 1};
constexpr std::size_t kChecksumBytes = 32;
constexpr std::size_t kCheckedBytes = sizeof(kMagic) + kZormKeyBytes;
constexpr std::size_t kFileBytes = kCheckedBytes + kChecksumBytes;
constexpr mode_t kPrivateMode = 0600;
constexpr char kLockSuffix[] = ".lock";

using FileImage = SecretArray<kFileBytes + 1>;  // room to notice a file that is too long

using Checksum = std::array<unsigned char, kChecksumBytes>;

bool ComputeChecksum(const FileImage& image, Checksum* checksum) {
  const OpenSslScope scope;
  return ::EVP_Digest(image.data(), kCheckedBytes, checksum->data(), nullptr, ::EVP_sha256(),
                      nullptr) == 1;
}

bool EncodeKey(const ZormKey& key, FileImage* image) {
  const auto keyPlace = std::copy(std::begin(kMagic), std::end(kMagic), image->begin());
  const auto checksumPlace = std::copy(key.begin(), key.end(), keyPlace);
  Checksum checksum;
  if (!ComputeChecksum(*image, &checksum)) return false;
  std::copy(checksum.begin(), checksum.end(), checksumPlace);
  return true;
}

bool IsIntact(const FileImage& image, std::size_t length, const Checksum& checksum) {
  return length == kFileBytes && std::equal(std::begin(kMagic), std::end(kMagic), image.begin()) &&
         std::equal(checksum.begin(), checksum.end(), image.begin() + kCheckedBytes);
}

}  // namespace

struct ZormStore::StoredFile {
  enum class State { kIntact, kMissing, kDamaged, kUnreadable };

  State state = State::kUnreadable;
  int error = 0;  // for kUnreadable
  mode_t mode = 0;
  ZormKey key;  // for kIntact
};

ZormStore::ZormStore(std::string logFile, std::string storeFile, std::string backupFile)
    : m_logFile(std::move(logFile)),
      m_storeFile(std::move(storeFile)),
      m_backupFile(std::move(backupFile)) {}

ZormStoreResult ZormStore::Open(ZormKey* key) {
  using State = StoredFile::State;
  if (const ZormStoreResult result = Prepare(); result != ZormStoreResult::kReady) return result;
  const StoredFile main = Read(m_storeFile);
  const StoredFile backup = Read(m_backupFile);
  for (const StoredFile* file : {&main, &backup}) {
    if (file->state == State::kUnreadable) {
      return Failed(ZormStoreResult::kUnreadable, "a store file cannot be read", file->error);
    }
  }
  if (main.state == State::kIntact) {
    *key = main.key;  // also when the backup holds another one
  } else if (backup.state == State::kIntact) {
    *key = backup.key;
  } else if (main.state == State::kDamaged || backup.state == State::kDamaged) {
    return Failed(ZormStoreResult::kDamaged, "damaged, no intact file is left", 0);
  } else if (!MakeKey(key)) {
    return Failed(ZormStoreResult::kUnwritable, "no random bytes for a new key", 0);
  }
  int error = Repair(m_storeFile, "main file", main, *key);
  if (error == 0) error = Repair(m_backupFile, "backup file", backup, *key);
  if (error != 0) return Failed(ZormStoreResult::kUnwritable, "cannot write a store file", error);
  Log("opened");
  return ZormStoreResult::kReady;
}

// Under the lock afterwards.
ZormStoreResult ZormStore::Prepare() {
  for (const std::string* file : {&m_storeFile, &m_backupFile}) {
    if (const int error = PrepareDirectoryOf(*file); error != 0) {
      return Failed(ZormStoreResult::kUnwritable, "cannot create or write the directory", error);
    }
  }
  const int error = m_lock.Acquire(m_storeFile + kLockSuffix);
  if (error == EWOULDBLOCK) return Failed(ZormStoreResult::kLocked, "in use by another process", 0);
  if (error != 0) return Failed(ZormStoreResult::kUnwritable, "cannot lock the store", error);
  return ZormStoreResult::kReady;
}

ZormStore::StoredFile ZormStore::Read(const std::string& path) const {
  using State = StoredFile::State;
  StoredFile file;
  FileImage image;
  std::size_t length = 0;
  file.error = ReadFileStart(path, image.data(), image.size(), &length, &file.mode);
  if (file.error == ENOENT) file.state = State::kMissing;
  if (file.error != 0) return file;
  Checksum checksum;
  if (!ComputeChecksum(image, &checksum)) {
    file.error = ENOMEM;  // says nothing about the file, which must not count as damaged
    return file;
  }
  file.state = IsIntact(image, length, checksum) ? State::kIntact : State::kDamaged;
  std::copy_n(image.begin() + sizeof(kMagic), kZormKeyBytes, file.key.begin());
  return file;
}

bool ZormStore::MakeKey(ZormKey* key) const {
  Log("no files yet, a new key is made");
  return ORB_CPYPT_RealRandom(key->data(), kZormKeyBytes) == 0;
}

// Replaces a file that is not as it should be.
int ZormStore::Repair(const std::string& path, const char* name, const StoredFile& file,
                      const ZormKey& key) const {
  const char* reason = nullptr;
  if (file.state == StoredFile::State::kMissing) {
    reason = "missing";
  } else if (file.state == StoredFile::State::kDamaged) {
    reason = "damaged";
  } else if (file.key != key) {
    reason = "of another key";
  } else if (file.mode != kPrivateMode) {
    reason = "open to others";
  }
  if (!reason) return 0;
  FileImage image;
  if (!EncodeKey(key, &image)) return EIO;
  const int error = ReplaceFile(path, image.data(), kFileBytes);
  if (error == 0) Log(std::string(name) + " was " + reason + " and is written anew");
  return error;
}

ZormStoreResult ZormStore::Failed(ZormStoreResult result, const char* what, int error) const {
  Log(error == 0 ? what : what + (", error " + std::to_string(error)));
  return result;
}
