// Records on disk until they are accepted elsewhere: append-only files, each record encrypted and
// authenticated on its own, so that whatever is cut off or damaged costs that record only.
//
// A record has reached the system with one write call before Append returns: it survives the end
// of the process, not the end of the machine. A file left by another process is never appended to.
// The oldest files make room for new records; what they held is counted as dropped, and so is what
// somebody else removes.
//
// Any thread may call any function; one thread at a time reads and accepts. Results tell of a
// disk that refuses: nothing here throws but std::bad_alloc. One process at a time owns a
// directory.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "track/TrackFile.h"
#include "track/TrackKey.h"
#include "zorm/zorm_file.h"

struct TrackLimits {
  std::uint64_t bytes = std::uint64_t{10} * 1024 * 1024;
  std::uint64_t records = 100000;
  std::int64_t ageMs = std::int64_t{7} * 24 * 3600 * 1000;
  std::uint64_t fileBytes = std::uint64_t{512} * 1024;
};

// Behind the record of that number, counted from 0, of a file.
struct TrackPosition {
  std::uint64_t file = 0;
  std::uint64_t offset = 0;
  std::uint64_t record = 0;
};

class TrackSpool {
 public:
  TrackSpool(std::string directory, const TrackKey& key, const TrackLimits& limits);
  TrackSpool(const TrackSpool&) = delete;
  TrackSpool& operator=(const TrackSpool&) = delete;
  ~TrackSpool();

  // Takes the directory, which exists, and counts what is there. False when another process
  // has it or it cannot be read. First of all and once.
  [[nodiscard]] bool Open(std::int64_t nowMs);
  // False with nothing stored. `*pending`, when not null, receives the records now waiting.
  [[nodiscard]] bool Append(std::string_view record, std::int64_t nowMs,
                            std::uint64_t* pending = nullptr);
  // Removes every record, without counting it as dropped.
  void Purge();
  // Removes every record, as dropped: those of a key that is lost.
  void DropAll();
  // The records dropped since the last call.
  std::uint64_t TakeDropped() { return m_dropped.exchange(0); }

  // Held by whoever reads and accepts.
  std::mutex& ReadingLock() { return m_readingLock; }

  std::uint64_t Pending() const { return m_pending.load(); }
  // Grows with each Purge: what was read before is not to be used any more.
  std::uint64_t Purges() const { return m_purges.load(); }
  // Removes, for good, what lies before `position`; `damaged` of these records could not be read.
  [[nodiscard]] bool Accept(const TrackPosition& position, std::uint64_t damaged);

 private:
  friend class TrackReader;

  struct File {
    std::uint64_t number;
    TrackSalt salt;
    std::string path;
    std::uint64_t bytes;    // up to the end of the last whole record
    std::uint64_t records;  // accepted ones too
    std::int64_t firstMs;
    std::int64_t lastMs;
  };

  bool ScanLocked();
  bool ScanFileLocked(File* file);
  void ReadPositionLocked();
  bool BeginFileLocked(std::int64_t nowMs);
  bool IsFileGoneLocked(std::int64_t nowMs);
  void EndFileLocked();
  void MakeRoomLocked(std::uint64_t bytes, std::int64_t nowMs);
  bool WriteLocked(std::string_view record);
  void RemoveLastLocked();
  std::uint64_t WaitingLocked(const File& file) const;
  void RemoveLocked(std::deque<File>::iterator file, bool dropped);
  void RemoveFirstLocked(bool dropped);
  void RemoveAcceptedLocked();
  void RemoveAllLocked(bool dropped);
  // The first file from `position` on that holds more than that; false when there is none.
  bool FindFile(TrackPosition* position, File* file) const;
  TrackPosition AcceptedPosition() const;
  // Its records, if it is known still, are dropped: somebody else removed it.
  void DropMissing(std::uint64_t number);

  const std::string m_directory;  // ends in "/"
  const TrackKey m_key;
  const TrackLimits m_limits;
  ZormFileLock m_ownership;
  std::mutex m_readingLock;  // taken before m_lock

  std::atomic<std::uint64_t> m_pending{0};  // these three are written under m_lock
  std::atomic<std::uint64_t> m_dropped{0};
  std::atomic<std::uint64_t> m_purges{0};
  mutable std::mutex m_lock;  // guards the rest; held for one write call at most
  std::deque<File> m_files;   // oldest first
  std::uint64_t m_bytes = 0;
  std::uint64_t m_lastNumber = 0;
  TrackPosition m_accepted;
  int m_descriptor = -1;           // of the last file, while records can be appended to it
  std::int64_t m_lookedAtMs = -1;  // when that file was last seen at its place
  TrackFileCipher m_cipher;
  std::vector<unsigned char> m_frame;
};

// Reads the records that waited when it was made, oldest first, one file in memory at a time.
// Not thread-safe. The spool outlives it.
class TrackReader {
 public:
  explicit TrackReader(TrackSpool& spool);

  // The next record; false at the end. Damaged ones are passed over.
  [[nodiscard]] bool Next(std::string* record);
  // Behind all that Next has read.
  const TrackPosition& Position() const { return m_position; }
  // Records that could not be read, since the last call.
  std::uint64_t TakeDamaged();

 private:
  bool LoadFile();

  TrackSpool& m_spool;
  TrackPosition m_position;
  TrackPosition m_end;
  TrackFileCipher m_cipher;
  std::string m_bytes;  // of the file, from m_begin on
  std::uint64_t m_begin = 0;
  bool m_loaded = false;
  std::uint64_t m_damaged = 0;
};
