#include "track/TrackFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <openssl/hmac.h>

#include "prax/descriptor.h"
#include "prax/owner_access.h"
#include "zel_platform/crypto.h"

namespace {

using prax::Descriptor;
using prax::Retried;

constexpr char kFileSuffix[] = ".spool";
constexpr mode_t kFileMode = 0600;
constexpr std::size_t kNumberDigits = 16;
constexpr std::size_t kSaltDigits = 32;
constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kHeadBytes = 2 * kLengthBytes;
constexpr std::size_t kTagBytes = 16;
constexpr std::size_t kNonceBytes = 12;
constexpr std::uint32_t kCheckMask = 0x7a54726b;
constexpr std::uint32_t kCheckFactor = 2654435761;  // odd, with its bits well spread

static_assert(kTrackFrameOverhead == kHeadBytes + kTagBytes);

std::string Hex(const unsigned char* bytes, std::size_t length) {
  std::string text(2 * length + 1, '\0');
  (void)orb_cvt_hex(bytes, static_cast<unsigned int>(length), text.data(),
                    static_cast<unsigned int>(text.size()));  // room for all of it
  text.pop_back();
  return text;
}

// Neither zeros nor a text pass for a head.
std::uint32_t CheckOf(std::uint32_t length) { return (length ^ kCheckMask) * kCheckFactor; }

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

void NonceOf(std::uint64_t offset, unsigned char* nonce) {
  ::memset(nonce, 0, kNonceBytes);
  for (std::size_t i = 0; i < sizeof(offset); ++i) {
    nonce[i] = static_cast<unsigned char>(offset >> (8 * i));
  }
}

}  // namespace

std::string TrackFileName(std::uint64_t number, const TrackSalt& salt) {
  char digits[kNumberDigits + 1] = "";
  (void)::snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(number));
  return std::string(digits) + "-" + Hex(salt.data(), salt.size()) + kFileSuffix;
}

bool ReadTrackFileName(const std::string& name, std::uint64_t* number, TrackSalt* salt) {
  if (name.size() != kNumberDigits + 1 + kSaltDigits + ::strlen(kFileSuffix)) return false;
  unsigned char bytes[kNumberDigits / 2];
  if (orb_cvt_bin(name.data(), kNumberDigits, bytes, sizeof(bytes)) != 0 ||
      orb_cvt_bin(name.data() + kNumberDigits + 1, kSaltDigits, salt->data(),
                  static_cast<unsigned int>(salt->size())) != 0) {
    return false;
  }
  *number = 0;
  for (const unsigned char byte : bytes) *number = *number << 8 | byte;
  return *number <= kHighestTrackFile && name == TrackFileName(*number, *salt);
}

int MakeTrackFile(const std::string& path) {
  Descriptor file(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW, kFileMode);
  if (file.IsOpen()) KeepOwnerAccess(file.Get());
  return file.Release();
}

bool AppendToTrackFile(int descriptor, const unsigned char* bytes, std::size_t length) {
  return Retried([&] { return ::write(descriptor, bytes, length); }) ==
         static_cast<ssize_t>(length);
}

bool WriteTrackFileStart(const std::string& path, std::string_view bytes) {
  const Descriptor file(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW, kFileMode);
  if (!file.IsOpen()) return false;
  KeepOwnerAccess(file.Get());
  return Retried([&] { return ::write(file.Get(), bytes.data(), bytes.size()); }) ==
         static_cast<ssize_t>(bytes.size());
}

int ReadTrackFile(const std::string& path, std::uint64_t begin, std::uint64_t end,
                  std::string* bytes) {
  const Descriptor file(path.c_str(), O_RDONLY | O_NOFOLLOW);
  if (!file.IsOpen()) return errno;
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

std::size_t FindTrackFrame(std::string_view bytes, std::size_t* offset) {
  for (; bytes.size() - *offset >= kHeadBytes; ++*offset) {
    const std::uint32_t length = NumberAt(bytes, *offset);
    if (NumberAt(bytes, *offset + kLengthBytes) != CheckOf(length)) continue;
    const std::size_t size = length + kTrackFrameOverhead;
    if (size <= bytes.size() - *offset) return size;
  }
  return 0;
}

bool TrackFileCipher::Start(const TrackKey& key, std::uint64_t number, const TrackSalt& salt) {
  const OpenSslScope scope;
  const std::string name = TrackFileName(number, salt);
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

bool TrackFileCipher::Seal(std::uint64_t offset, std::string_view record, unsigned char* frame) {
  const OpenSslScope scope;
  unsigned char nonce[kNonceBytes];
  NonceOf(offset, nonce);
  const auto length = static_cast<std::uint32_t>(record.size());
  PutNumber(length, frame);
  PutNumber(CheckOf(length), frame + kLengthBytes);
  unsigned char* const body = frame + kHeadBytes;
  int written = 0;
  return ::EVP_EncryptInit_ex(m_sealing.get(), nullptr, nullptr, nullptr, nonce) == 1 &&
         ::EVP_EncryptUpdate(m_sealing.get(), body, &written,
                             reinterpret_cast<const unsigned char*>(record.data()),
                             static_cast<int>(record.size())) == 1 &&
         ::EVP_EncryptFinal_ex(m_sealing.get(), body + written, &written) == 1 &&
         ::EVP_CIPHER_CTX_ctrl(m_sealing.get(), EVP_CTRL_AEAD_GET_TAG, kTagBytes,
                               body + record.size()) == 1;
}

bool TrackFileCipher::Unseal(std::uint64_t offset, std::string_view frame, std::string* record) {
  const OpenSslScope scope;
  unsigned char nonce[kNonceBytes];
  NonceOf(offset, nonce);
  const std::size_t length = frame.size() - kTrackFrameOverhead;
  unsigned char tag[kTagBytes];  // the interface of the tag takes no constant
  ::memcpy(tag, frame.data() + kHeadBytes + length, sizeof(tag));
  record->resize(length);
  auto* const out = reinterpret_cast<unsigned char*>(record->data());
  int written = 0;
  return ::EVP_DecryptInit_ex(m_unsealing.get(), nullptr, nullptr, nullptr, nonce) == 1 &&
         ::EVP_DecryptUpdate(m_unsealing.get(), out, &written,
                             reinterpret_cast<const unsigned char*>(frame.data() + kHeadBytes),
                             static_cast<int>(length)) == 1 &&
         ::EVP_CIPHER_CTX_ctrl(m_unsealing.get(), EVP_CTRL_AEAD_SET_TAG, kTagBytes, tag) == 1 &&
         ::EVP_DecryptFinal_ex(m_unsealing.get(), out + written, &written) == 1;
}
