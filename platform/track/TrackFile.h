// The files of the spool: their names, the frames that their records lie in, and how these are
// encrypted.
//
// A name carries a number, which tells the order, and a random salt. A file is nothing but frames:
// the record's length, a check of it, the encrypted record, its tag.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "track/TrackKey.h"

using TrackSalt = std::array<unsigned char, 16>;

// Counting never comes this far: a number above it is not this library's.
constexpr std::uint64_t kHighestTrackFile = UINT64_MAX / 2;

std::string TrackFileName(std::uint64_t number, const TrackSalt& salt);
// False for a name that TrackFileName does not give.
[[nodiscard]] bool ReadTrackFileName(const std::string& name, std::uint64_t* number,
                                     TrackSalt* salt);

// -1 when it exists already or cannot be made.
[[nodiscard]] int MakeTrackFile(const std::string& path);
// In one write call; false when not all of it was written.
[[nodiscard]] bool AppendToTrackFile(int descriptor, const unsigned char* bytes,
                                     std::size_t length);
// Puts `bytes` in the place of the file's beginning, in one write call. Does not wait for the disk.
[[nodiscard]] bool WriteTrackFileStart(const std::string& path, std::string_view bytes);
// The bytes [begin, end), fewer when the file is shorter. 0 or the errno of what failed.
[[nodiscard]] int ReadTrackFile(const std::string& path, std::uint64_t begin, std::uint64_t end,
                                std::string* bytes);

// What a frame takes beside the record's own bytes.
constexpr std::size_t kTrackFrameOverhead = 4 + 4 + 16;

// Steps `*offset` to the next whole frame and returns its size, 0 when there is none. Behind a
// damaged head the next one that makes sense is searched for.
std::size_t FindTrackFrame(std::string_view bytes, std::size_t* offset);

// Writes and opens the frames of one file, with a key that is derived from the spool's and the
// file's name. Not thread-safe.
class TrackFileCipher {
 public:
  [[nodiscard]] bool Start(const TrackKey& key, std::uint64_t number, const TrackSalt& salt);
  // The frame's place in its file is the nonce, so no place may ever be written twice. `frame` has
  // room for the record and kTrackFrameOverhead.
  [[nodiscard]] bool Seal(std::uint64_t offset, std::string_view record, unsigned char* frame);
  // False for a frame that is altered, or of another place or file.
  [[nodiscard]] bool Unseal(std::uint64_t offset, std::string_view frame, std::string* record);

 private:
  TrackKey m_key;
  CipherCtx m_sealing;
  CipherCtx m_unsealing;
};
