#include "track/TrackKey.h"

#include <errno.h>
#include <sys/types.h>

#include "zel_platform/crypto.h"
#include "zel_platform/zorm.h"
#include "zorm/zorm_file.h"

namespace {

constexpr std::size_t kSealedCapacity = 303;  // what key management promises for 32 bytes

struct SealedKey {
  unsigned char bytes[kSealedCapacity];
  std::size_t length = 0;
};

bool Seal(const TrackKey& key, SealedKey* sealed) {
  unsigned int length = sizeof(sealed->bytes);
  if (orb_zorm_encrypt(key.data(), kTrackKeyBytes, sealed->bytes, &length) != 0) return false;
  sealed->length = length;
  return true;
}

bool Unseal(const SealedKey& sealed, TrackKey* key) {
  unsigned int length = kTrackKeyBytes;
  return sealed.length > 0 &&
         orb_zorm_decrypt(sealed.bytes, static_cast<unsigned int>(sealed.length), key->data(),
                          &length) == 0 &&
         length == kTrackKeyBytes;
}

}  // namespace

// That a stored key does not open tells nothing before another text did open.
TrackKeyResult LoadTrackKey(const std::string& file, TrackKey* key) {
  SealedKey stored;
  mode_t mode = 0;
  const int error = ReadFileStart(file, stored.bytes, sizeof(stored.bytes), &stored.length, &mode);
  if (error != 0 && error != ENOENT) return TrackKeyResult::kUnavailable;
  if (Unseal(stored, key)) return TrackKeyResult::kKnown;

  TrackKey fresh;
  SealedKey sealed;
  if (ORB_CPYPT_RealRandom(fresh.data(), kTrackKeyBytes) != 0 || !Seal(fresh, &sealed) ||
      !Unseal(sealed, key)) {
    return TrackKeyResult::kUnavailable;
  }
  if (Unseal(stored, key)) return TrackKeyResult::kKnown;  // key management has just started
  *key = fresh;
  return ReplaceFile(file, sealed.bytes, sealed.length) == 0 ? TrackKeyResult::kNew
                                                             : TrackKeyResult::kUnavailable;
}
