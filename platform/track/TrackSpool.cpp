#include "track/TrackSpool.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "prax/descriptor.h"
#include "zel_platform/crypto.h"

namespace {

constexpr char kLockName[] = "lock";
constexpr char kPositionName[] = "position";
constexpr std::int64_t kLongestFileMs = std::int64_t{24} * 3600 * 1000;
constexpr std::size_t kMostFiles = 1000;  // each start may leave one
constexpr std::size_t kPositionCapacity = 128;

// Always of the same length, so that each covers the one before.
std::string PositionText(const TrackPosition& position) {
  char text[kPositionCapacity] = "";
  (void)::snprintf(text, sizeof(text), "%016llx %016llx %016llx\n",
                   static_cast<unsigned long long>(position.file),
                   static_cast<unsigned long long>(position.offset),
                   static_cast<unsigned long long>(position.record));
  return text;
}

}  // namespace

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

// A position that cannot be read is the beginning: better twice than never. So is one that counting
// never reaches, which would leave no numbers for what is to come.
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
  if (::sscanf(reinterpret_cast<const char*>(bytes), "%16llx %16llx %16llx%c", &file, &offset,
               &record, &end) != 4 ||
      end != '\n' || std::max({file, offset, record}) > kHighestTrackFile / 2) {
    return;
  }
  m_accepted = {file, offset, record};
  m_lastNumber = file;
}

bool TrackSpool::ScanLocked() {
  const prax::DirectoryHandle directory(::opendir(m_directory.c_str()));
  if (!directory) return false;
  while (const dirent* const entry = ::readdir(directory.get())) {
    File file = {};
    if (!ReadTrackFileName(entry->d_name, &file.number, &file.salt)) continue;
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
  if (ReadTrackFile(file->path, 0, size, &bytes) != 0) return false;
  // Damage before the position is not looked at: it would hide records behind it.
  std::size_t offset = 0;
  if (file->number == m_accepted.file) {
    offset = std::min<std::uint64_t>(m_accepted.offset, bytes.size());
    file->records = m_accepted.record;
  }
  file->bytes = offset;
  while (const std::size_t frame = FindTrackFrame(bytes, &offset)) {
    offset += frame;
    file->bytes = offset;
    ++file->records;
  }
  return true;
}

bool TrackSpool::Append(std::string_view record, std::int64_t nowMs, std::uint64_t* pending) {
  const std::lock_guard<std::mutex> hold(m_lock);
  const std::uint64_t size = record.size() + kTrackFrameOverhead;
  if (size > m_limits.bytes || record.size() > INT32_MAX) return false;
  MakeRoomLocked(size, nowMs);
  if (m_descriptor >= 0 &&
      (m_files.back().bytes + size > m_limits.fileBytes ||
       nowMs - m_files.back().firstMs > kLongestFileMs || IsFileGoneLocked(nowMs))) {
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
  file.path = m_directory + TrackFileName(file.number, file.salt);
  file.firstMs = file.lastMs = nowMs;
  const int descriptor = MakeTrackFile(file.path);
  if (descriptor < 0) return false;
  m_files.push_back(std::move(file));
  m_descriptor = descriptor;
  ++m_lastNumber;
  return true;
}

// Records to come would go where nobody finds them. Those of the same millisecond share one look.
bool TrackSpool::IsFileGoneLocked(std::int64_t nowMs) {
  if (nowMs == m_lookedAtMs) return false;
  m_lookedAtMs = nowMs;
  return ::access(m_files.back().path.c_str(), F_OK) != 0 && errno == ENOENT;
}

void TrackSpool::EndFileLocked() {
  if (m_descriptor >= 0) (void)::close(std::exchange(m_descriptor, -1));  // all handed over
}

// After a write that failed the file takes no more: its place would be written twice.
bool TrackSpool::WriteLocked(std::string_view record) {
  File& file = m_files.back();
  const std::size_t size = record.size() + kTrackFrameOverhead;
  if (m_frame.size() < size) m_frame.resize(size);
  if (!m_cipher.Seal(file.bytes, record, m_frame.data())) return false;
  if (AppendToTrackFile(m_descriptor, m_frame.data(), size)) {
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

void TrackSpool::RemoveLocked(std::deque<File>::iterator file, bool dropped) {
  const std::uint64_t waiting = WaitingLocked(*file);
  if (file + 1 == m_files.end()) EndFileLocked();
  (void)::unlink(file->path.c_str());  // one that stays is found again at the next start
  m_bytes -= file->bytes;
  m_pending.fetch_sub(waiting);
  if (dropped) m_dropped.fetch_add(waiting);
  m_files.erase(file);
}

void TrackSpool::RemoveFirstLocked(bool dropped) { RemoveLocked(m_files.begin(), dropped); }

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

void TrackSpool::DropMissing(std::uint64_t number) {
  const std::lock_guard<std::mutex> hold(m_lock);
  const auto missing = std::find_if(m_files.begin(), m_files.end(),
                                    [&](const File& file) { return file.number == number; });
  if (missing != m_files.end()) RemoveLocked(missing, true);
}

// The file that takes records stays, however much of it is accepted.
void TrackSpool::RemoveAcceptedLocked() {
  while (!m_files.empty() && WaitingLocked(m_files.front()) == 0 &&
         (m_files.size() > 1 || m_descriptor < 0)) {
    RemoveFirstLocked(false);
  }
}

// The position is written before a file goes, so that none is read twice after a kill.
bool TrackSpool::Accept(const TrackPosition& position, std::uint64_t damaged) {
  const bool written = WriteTrackFileStart(m_directory + kPositionName, PositionText(position));
  const std::lock_guard<std::mutex> hold(m_lock);
  std::uint64_t before = 0;
  std::uint64_t after = 0;
  for (const File& file : m_files) before += WaitingLocked(file);
  m_accepted = position;
  for (const File& file : m_files) after += WaitingLocked(file);
  m_pending.fetch_sub(before - after);
  m_dropped.fetch_add(damaged);
  RemoveAcceptedLocked();
  return written;
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
