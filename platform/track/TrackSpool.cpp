#include "track/TrackSpool.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

#include <openssl/hmac.h>

#include "zel_platform/crypto.h"

namespace {

constexpr char kLockName[] = "lock";
constexpr char kPositionName[] = "position";
constexpr char kFileSuffix[] = ".spool";
constexpr mode_t kFileMode = 0600;
constexpr std::size_t kNumberDigits = 16;
constexpr std::size_t kSaltDigits = 32;
constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kFrameHeadBytes = 2 * kLengthBytes;
constexpr std::size_t kTagBytes = 16;
constexpr std::size_t kNonceBytes = 12;
constexpr std::uint32_t kLengthCheck = 0x7a54726bU;
constexpr std::int64_t kLongestFileMs = std::int64_t{24} * 3600 * 1000;
constexpr std::size_t kMostFiles = 1000;  // each start may leave one
constexpr std::size_t kPositionCapacity = 128;

static_assert(TrackSpool::kOverheadBytes == kFrameHeadBytes + kTagBytes);

template <class Call>
auto Retried(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (m_descriptor >= 0) (void)::close(m_descriptor);
  }
  int Get() const { return m_descriptor; }

 private:
  const int m_descriptor;
};

struct CloseDirectory {
  void operator()(DIR* directory) const { (void)::closedir(directory); }
};

std::uint32_t CheckOf(std::uint32_t length) { return (length ^ kLengthCheck) * 2654435761U; }

void PutNumber(std::uint32_t number, unsigned char* out) {
  for (std::size_t i = 0; i < kLengthBytes; ++i)
    out[i] = static_cast<unsigned char>(number >> (8 * i));
}

std::uint32_t NumberAt(std::string_view bytes, std::size_t offset) {
  std::uint32_t number = 0;
  for (std::size_t i = kLengthBytes; i > 0; --i) {
    number = number << 8 | static_cast<unsigned char>(bytes[offset + i - 1]);
  }
  return number;
}

// Steps `*offset` to the next frame and returns the size of it, 0 when there is none. Behind a
// damaged head the next one that makes sense is searched for.
std::size_t FindFrame(std::string_view bytes, std::size_t* offset) {
  for (; bytes.size() - *offset >= kFrameHeadBytes; ++*offset) {
    const std::uint32_t length = NumberAt(bytes, *offset);
    if (NumberAt(bytes, *offset + kLengthBytes) != CheckOf(length)) continue;
    const std::size_t size = kFrameHeadBytes + length + kTagBytes;
    if (size <= bytes.size() - *offset) return size;
  }
  return 0;
}

// The bytes [begin, end) of a file, fewer when it is shorter. 0 or the errno of what failed.
int ReadBytes(const std::string& path, std::uint64_t begin, std::uint64_t end, std::string* bytes) {
  const Descriptor file(
      Retried([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW); }));
  if (file.Get() < 0) return errno;
  bytes->resize(end - begin);
  std::size_t length = 0;
  while (length < bytes->size()) {
    const ssize_t got = Retried([&] {
      return ::pread(file.Get(), bytes->data() + length, bytes->size() - length,
                     static_cast<off_t>(begin + length));
    });
    if (got < 0) return errno;
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  bytes->resize(length);
  return 0;
}

std::string Hex(const unsigned char* bytes, std::size_t length) {
  std::string text(2 * length + 1, '\0');
  (void)orb_cvt_hex(bytes, static_cast<unsigned int>(length), text.data(),
                    static_cast<unsigned int>(text.size()));  // room for all of it
  text.pop_back();
  return text;
}

// "<number>-<salt>.spool"
std::string NameOf(std::uint64_t number, const TrackFileCipher::Salt& salt) {
  char digits[kNumberDigits + 1] = "";
  (void)::snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(number));
  return std::string(digits) + "-" + Hex(salt.data(), salt.size()) + kFileSuffix;
}

bool ReadName(const std::string& name, std::uint64_t* number, TrackFileCipher::Salt* salt) {
  if (name.size() != kNumberDigits + 1 + kSaltDigits + strlen(kFileSuffix)) return false;
  unsigned char bytes[kNumberDigits / 2];
  if (orb_cvt_bin(name.data(), kNumberDigits, bytes, sizeof(bytes)) != 0 ||
      orb_cvt_bin(name.data() + kNumberDigits + 1, kSaltDigits, salt->data(),
                  static_cast<unsigned int>(salt->size())) != 0) {
    return false;
  }
  *number = 0;
  for (const unsigned char byte : bytes) *number = *number << 8 | byte;
  return name == NameOf(*number, *salt);
}

void NonceOf(std::uint64_t offset, unsigned char* nonce) {
  ::memset(nonce, 0, kNonceBytes);
  for (std::size_t i = 0; i < sizeof(offset); ++i) {
    nonce[i] = static_cast<unsigned char>(offset >> (8 * i));
  }
}

}  // namespace

bool TrackFileCipher::Start(const TrackKey& key, std::uint64_t file, const Salt& salt) {
  const OpenSslScope scope;
  const std::string name = NameOf(file, salt);
  unsigned int length = 0;
  if (::HMAC(::EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(name.data()), name.size(), m_key.data(),
             &length) == nullptr) {
    return false;
  }
  m_sealing.reset(::EVP_CIPHER_CTX_new());
  m_unsealing.reset(::EVP_CIPHER_CTX_new());
  return m_sealing && m_unsealing &&
         ::EVP_EncryptInit_ex(m_sealing.get(), ::EVP_aes_256_gcm(), nullptr, m_key.data(),
                              nullptr) == 1 &&
         ::EVP_DecryptInit_ex(m_unsealing.get(), ::EVP_aes_256_gcm(), nullptr, m_key.data(),
                              nullptr) == 1;
}

bool TrackFileCipher::Seal(std::uint64_t offset, std::string_view plain, unsigned char* out) {
  const OpenSslScope scope;
  unsigned char nonce[kNonceBytes];
  NonceOf(offset, nonce);
  int written = 0;
  return ::EVP_EncryptInit_ex(m_sealing.get(), nullptr, nullptr, nullptr, nonce) == 1 &&
         ::EVP_EncryptUpdate(m_sealing.get(), out, &written,
                             reinterpret_cast<const unsigned char*>(plain.data()),
                             static_cast<int>(plain.size())) == 1 &&
         ::EVP_EncryptFinal_ex(m_sealing.get(), out + written, &written) == 1 &&
         ::EVP_CIPHER_CTX_ctrl(m_sealing.get(), EVP_CTRL_AEAD_GET_TAG, kTagBytes,
                               out + plain.size()) == 1;
}

bool TrackFileCipher::Unseal(std::uint64_t offset, std::string_view sealed, std::string* plain) {
  const OpenSslScope scope;
  unsigned char nonce[kNonceBytes];
  NonceOf(offset, nonce);
  const std::size_t length = sealed.size() - kTagBytes;
  unsigned char tag[kTagBytes];  // the interface of the tag takes no constant
  ::memcpy(tag, sealed.data() + length, sizeof(tag));
  plain->resize(length);
  auto* const out = reinterpret_cast<unsigned char*>(plain->data());
  int written = 0;
  return ::EVP_DecryptInit_ex(m_unsealing.get(), nullptr, nullptr, nullptr, nonce) == 1 &&
         ::EVP_DecryptUpdate(m_unsealing.get(), out, &written,
                             reinterpret_cast<const unsigned char*>(sealed.data()),
                             static_cast<int>(length)) == 1 &&
         ::EVP_CIPHER_CTX_ctrl(m_unsealing.get(), EVP_CTRL_AEAD_SET_TAG, kTagBytes, tag) == 1 &&
         ::EVP_DecryptFinal_ex(m_unsealing.get(), out + written, &written) == 1;
}

TrackSpool::TrackSpool(std::string directory, const TrackKey& key, const TrackLimits& limits)
    : m_directory(std::move(directory)), m_key(key), m_limits(limits) {}

TrackSpool::~TrackSpool() { EndFileLocked(); }

bool TrackSpool::Open(std::int64_t nowMs) {
  const std::lock_guard<std::mutex> hold(m_lock);
  if (m_ownership.Acquire(m_directory + kLockName) != 0) return false;
  ReadPositionLocked();
  if (!ScanLocked()) return false;
  RemoveAcceptedLocked();
  MakeRoomLocked(0, nowMs);
  return true;
}

// A position that cannot be read is the beginning: better twice than never.
void TrackSpool::ReadPositionLocked() {
  unsigned char bytes[kPositionCapacity + 1] = {};
  std::size_t length = 0;
  mode_t mode = 0;
  if (ReadFileStart(m_directory + kPositionName, bytes, kPositionCapacity, &length, &mode) != 0) {
    return;
  }
  unsigned long long file = 0;
  unsigned long long offset = 0;
  unsigned long long record = 0;
  char end = '\0';
  if (::sscanf(reinterpret_cast<const char*>(bytes), "%llu %llu %llu%c", &file, &offset, &record,
               &end) != 4 ||
      end != '\n') {
    return;
  }
  m_accepted = {file, offset, record};
  m_lastNumber = file;
}

bool TrackSpool::ScanLocked() {
  const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(m_directory.c_str()));
  if (!directory) return false;
  while (const dirent* const entry = ::readdir(directory.get())) {
    File file = {};
    if (!ReadName(entry->d_name, &file.number, &file.salt)) continue;
    file.path = m_directory + entry->d_name;
    if (ScanFileLocked(&file)) m_files.push_back(std::move(file));
  }
  std::sort(m_files.begin(), m_files.end(),
            [](const File& a, const File& b) { return a.number < b.number; });
  std::uint64_t pending = 0;
  for (const File& file : m_files) {
    m_lastNumber = std::max(m_lastNumber, file.number);
    m_bytes += file.bytes;
    pending += WaitingLocked(file);
  }
  m_pending.store(pending);
  return true;
}

bool TrackSpool::ScanFileLocked(File* file) {
  struct stat found;
  if (::lstat(file->path.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) return false;
  file->firstMs = file->lastMs = static_cast<std::int64_t>(found.st_mtime) * 1000;
  // A file begins at most one record beyond its size; what is longer is not this library's.
  const auto size = std::min<std::uint64_t>(static_cast<std::uint64_t>(found.st_size),
                                            m_limits.bytes + m_limits.fileBytes);
  std::string bytes;
  if (ReadBytes(file->path, 0, size, &bytes) != 0) return false;
  std::size_t offset = 0;
  while (const std::size_t frame = FindFrame(bytes, &offset)) {
    offset += frame;
    file->bytes = offset;
    ++file->records;
  }
  return true;
}

bool TrackSpool::Append(std::string_view record, std::int64_t nowMs, std::uint64_t* pending) {
  const std::lock_guard<std::mutex> hold(m_lock);
  const std::uint64_t size = record.size() + kOverheadBytes;
  if (size > m_limits.bytes || record.size() > INT32_MAX) return false;
  MakeRoomLocked(size, nowMs);
  if (m_descriptor >= 0 && (m_files.back().bytes + size > m_limits.fileBytes ||
                            nowMs - m_files.back().firstMs > kLongestFileMs)) {
    EndFileLocked();
  }
  if (m_descriptor < 0 && !BeginFileLocked(nowMs)) return false;
  if (!WriteLocked(record)) return false;
  m_files.back().lastMs = nowMs;
  const std::uint64_t waiting = m_pending.fetch_add(1) + 1;
  if (pending != nullptr) *pending = waiting;
  return true;
}

// With the record all of its file's records are within the limits.
void TrackSpool::MakeRoomLocked(std::uint64_t bytes, std::int64_t nowMs) {
  const std::uint64_t records = bytes > 0 ? 1 : 0;
  while (!m_files.empty() &&
         (m_bytes + bytes > m_limits.bytes || m_pending.load() + records > m_limits.records ||
          nowMs - m_files.front().lastMs > m_limits.ageMs || m_files.size() > kMostFiles)) {
    RemoveFirstLocked(true);
  }
}

bool TrackSpool::BeginFileLocked(std::int64_t nowMs) {
  File file = {};
  file.number = m_lastNumber + 1;
  if (ORB_CPYPT_RealRandom(file.salt.data(), static_cast<unsigned int>(file.salt.size())) != 0 ||
      !m_cipher.Start(m_key, file.number, file.salt)) {
    return false;
  }
  file.path = m_directory + NameOf(file.number, file.salt);
  file.firstMs = file.lastMs = nowMs;
  const int descriptor = Retried([&] {
    return ::open(file.path.c_str(),
                  O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC | O_NOFOLLOW, kFileMode);
  });
  if (descriptor < 0) return false;
  m_files.push_back(std::move(file));
  m_descriptor = descriptor;
  ++m_lastNumber;
  return true;
}

void TrackSpool::EndFileLocked() {
  if (m_descriptor >= 0) (void)::close(std::exchange(m_descriptor, -1));  // all handed over
}

// After a write that failed the file takes no more: its place would be written twice.
bool TrackSpool::WriteLocked(std::string_view record) {
  File& file = m_files.back();
  const std::size_t size = record.size() + kOverheadBytes;
  if (m_frame.size() < size) m_frame.resize(size);
  const auto length = static_cast<std::uint32_t>(record.size());
  PutNumber(length, m_frame.data());
  PutNumber(CheckOf(length), m_frame.data() + kLengthBytes);
  if (!m_cipher.Seal(file.bytes, record, m_frame.data() + kFrameHeadBytes)) return false;
  const ssize_t written = Retried([&] { return ::write(m_descriptor, m_frame.data(), size); });
  if (written == static_cast<ssize_t>(size)) {
    file.bytes += size;
    ++file.records;
    m_bytes += size;
    return true;
  }
  EndFileLocked();
  if (file.records == 0) RemoveLastLocked();
  return false;
}

void TrackSpool::RemoveLastLocked() {
  (void)::unlink(m_files.back().path.c_str());  // an empty one that stays is removed at a start
  m_files.pop_back();
}

std::uint64_t TrackSpool::WaitingLocked(const File& file) const {
  if (file.number < m_accepted.file) return 0;
  if (file.number > m_accepted.file) return file.records;
  return file.records - std::min(file.records, m_accepted.record);
}

void TrackSpool::RemoveFirstLocked(bool dropped) {
  const File& file = m_files.front();
  const std::uint64_t waiting = WaitingLocked(file);
  if (m_files.size() == 1) EndFileLocked();
  (void)::unlink(file.path.c_str());  // one that stays is found again at the next start
  m_bytes -= file.bytes;
  m_pending.fetch_sub(waiting);
  if (dropped) m_dropped.fetch_add(waiting);
  m_files.pop_front();
}

void TrackSpool::RemoveAllLocked(bool dropped) {
  while (!m_files.empty()) RemoveFirstLocked(dropped);
}

void TrackSpool::Purge() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_purges.fetch_add(1);
  RemoveAllLocked(false);
}

void TrackSpool::DropAll() {
  const std::lock_guard<std::mutex> hold(m_lock);
  RemoveAllLocked(true);
}

// The file that takes records stays, however much of it is accepted.
void TrackSpool::RemoveAcceptedLocked() {
  while (!m_files.empty() && WaitingLocked(m_files.front()) == 0 &&
         (m_files.size() > 1 || m_descriptor < 0)) {
    RemoveFirstLocked(false);
  }
}

// The position reaches the disk before a file goes, and outside the lock, since that takes long.
bool TrackSpool::Accept(const TrackPosition& position, std::uint64_t damaged) {
  const std::string text = std::to_string(position.file) + " " + std::to_string(position.offset) +
                           " " + std::to_string(position.record) + "\n";
  const int error = ReplaceFile(m_directory + kPositionName,
                                reinterpret_cast<const unsigned char*>(text.data()), text.size());
  const std::lock_guard<std::mutex> hold(m_lock);
  std::uint64_t before = 0;
  std::uint64_t after = 0;
  for (const File& file : m_files) before += WaitingLocked(file);
  m_accepted = position;
  for (const File& file : m_files) after += WaitingLocked(file);
  m_pending.fetch_sub(before - after);
  m_dropped.fetch_add(damaged);
  RemoveAcceptedLocked();
  return error == 0;
}

TrackPosition TrackSpool::AcceptedPosition() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_accepted;
}

bool TrackSpool::FindFile(TrackPosition* position, File* file) const {
  const std::lock_guard<std::mutex> hold(m_lock);
  for (const File& each : m_files) {
    if (each.number < position->file) continue;
    if (each.number > position->file) *position = {each.number, 0, 0};
    if (each.bytes <= position->offset) continue;
    *file = each;
    return true;
  }
  return false;
}

TrackReader::TrackReader(const TrackSpool& spool)
    : m_spool(spool), m_position(spool.AcceptedPosition()) {
  const std::lock_guard<std::mutex> hold(spool.m_lock);
  if (!spool.m_files.empty()) m_end = {spool.m_files.back().number, spool.m_files.back().bytes, 0};
}

bool TrackReader::LoadFile() {
  for (TrackSpool::File file; m_spool.FindFile(&m_position, &file);) {
    if (file.number > m_end.file) return false;
    const std::uint64_t end = file.number == m_end.file ? m_end.offset : file.bytes;
    if (end <= m_position.offset) return false;
    const int error = ReadBytes(file.path, m_position.offset, end, &m_bytes);
    m_begin = m_position.offset;
    if (error == 0) return m_cipher.Start(m_spool.m_key, file.number, file.salt);
    if (error != ENOENT) return false;     // it may be readable later
    m_position = {file.number + 1, 0, 0};  // it made room meanwhile
  }
  return false;
}

bool TrackReader::Next(std::string* record) {
  for (;;) {
    m_loaded = m_loaded || LoadFile();
    if (!m_loaded) return false;
    std::size_t offset = m_position.offset - m_begin;
    const std::size_t size = FindFrame(m_bytes, &offset);
    if (size == 0) {
      if (m_position.file >= m_end.file) return false;  // that file may still grow
      m_position = {m_position.file + 1, 0, 0};
      m_loaded = false;
      continue;
    }
    const std::uint64_t place = m_begin + offset;
    m_position = {m_position.file, place + size, m_position.record + 1};
    const std::string_view sealed(m_bytes.data() + offset + kFrameHeadBytes,
                                  size - kFrameHeadBytes);
    if (m_cipher.Unseal(place, sealed, record)) return true;
    ++m_damaged;
  }
}

std::uint64_t TrackReader::TakeDamaged() { return std::exchange(m_damaged, 0); }
