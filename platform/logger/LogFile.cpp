#include "logger/LogFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <utility>

#include <spdlog/formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include "prax/descriptor.h"
#include "prax/owner_access.h"

namespace {

constexpr int kDefaultSizeKb = 5120;
constexpr std::uint64_t kBytesPerKb = 1024;
constexpr mode_t kLogFileMode = 0640;

// Creates the file where there is none, with the mode it is to have; spdlog would make one that
// everyone may read, and directories too. Only a regular file will do. O_NONBLOCK keeps a pipe that
// lies at the path from blocking the opener.
bool MakeUsable(const char* path) noexcept {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NOCTTY | O_NONBLOCK;
  const prax::Descriptor file(path, kFlags, kLogFileMode);
  if (!file.IsOpen()) return false;
  KeepOwnerAccess(file.Get());
  struct stat facts;
  return ::fstat(file.Get(), &facts) == 0 && S_ISREG(facts.st_mode);
}

// The line as it is; it brings its newline.
class LineAsIs final : public spdlog::formatter {
 public:
  void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& out) override {
    out.append(message.payload.begin(), message.payload.end());
  }
  std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<LineAsIs>(); }
};

using RotatingSink = spdlog::sinks::rotating_file_sink_st;

}  // namespace

// The open file. It has no limit of its own: LogFile decides when to rotate.
struct LogFile::Sink {
  explicit Sink(const std::string& path);

  int descriptor = -1;  // belongs to `file`
  RotatingSink file;

 private:
  spdlog::file_event_handlers Handlers();
};

LogFile::Sink::Sink(const std::string& path)
    : file(path, std::numeric_limits<std::size_t>::max(), 0, false, Handlers()) {
  file.set_formatter(std::make_unique<LineAsIs>());
}

// Without a buffer each line is one write, at once.
spdlog::file_event_handlers LogFile::Sink::Handlers() {
  spdlog::file_event_handlers handlers;
  handlers.after_open = [this](const std::string& /*path*/, std::FILE* opened) {
    (void)std::setvbuf(opened, nullptr, _IONBF, 0);  // cannot fail before the first write
    descriptor = ::fileno(opened);
  };
  return handlers;
}

struct LogFile::Facts {
  dev_t device;
  ino_t inode;
  mode_t mode;
  std::uint64_t size;

  // Of the open file, or of the one that `path` names.
  bool Read(int descriptor) noexcept { return ReadAt(descriptor, "", AT_EMPTY_PATH); }
  bool Read(const char* path) noexcept { return ReadAt(AT_FDCWD, path, 0); }

 private:
  bool ReadAt(int descriptor, const char* path, int flags) noexcept;
};

// Asks for no times: on kernels with fine-grained time stamps a file whose times were
// read pays for it with a journal entry at the next write, more than the write costs.
bool LogFile::Facts::ReadAt(int descriptor, const char* path, int flags) noexcept {
  constexpr unsigned kWanted = STATX_TYPE | STATX_INO | STATX_SIZE;
  struct statx brief;
  if (::statx(descriptor, path, flags, kWanted, &brief) == 0) {
    *this = {::makedev(brief.stx_dev_major, brief.stx_dev_minor), brief.stx_ino, brief.stx_mode,
             brief.stx_size};
    return true;
  }
  struct stat full;  // a sandbox may forbid the newer call
  if (::fstatat(descriptor, path, &full, flags) != 0) return false;
  *this = {full.st_dev, full.st_ino, full.st_mode, static_cast<std::uint64_t>(full.st_size)};
  return true;
}

LogFile::LogFile(std::string path, int sizeKb, int oldFiles)
    : m_path(std::move(path)),
      m_limitBytes(static_cast<std::uint64_t>(sizeKb > 0 ? sizeKb : kDefaultSizeKb) * kBytesPerKb),
      m_oldFiles(std::max(oldFiles, 0)) {}

LogFile::~LogFile() { Close(); }

void LogFile::Close() noexcept { m_sink.reset(); }

bool LogFile::Open() noexcept try {
  Close();
  m_torn = false;
  m_lookedAtMs = -1;
  if (!MakeUsable(m_path.c_str())) return false;
  m_sink = std::make_unique<Sink>(m_path);
  Facts own;
  if (!own.Read(m_sink->descriptor)) {
    Close();
    return false;
  }
  m_device = own.device;
  m_inode = own.inode;
  m_size = own.size;
  return true;
} catch (...) {  // no memory, or the file cannot be opened
  return false;
}

bool LogFile::Append(std::string_view line, std::int64_t nowMs) noexcept {
  if (m_sink == nullptr || (nowMs != m_lookedAtMs && !IsStillAtPath())) {
    if (!Open()) return false;
  }
  m_lookedAtMs = nowMs;
  if (IsFullFor(line.size())) Rotate(line.size());
  if (m_sink == nullptr) return false;
  if (m_torn) {
    if (!Write("\n")) return false;
    m_torn = false;
  }
  return Write(line);
}

bool LogFile::IsStillAtPath() noexcept {
  Facts named;
  if (!named.Read(m_path.c_str()) || named.device != m_device || named.inode != m_inode) {
    return false;
  }
  m_size = named.size;
  return true;
}

// A line longer than the limit still gets an empty file to itself.
bool LogFile::IsFullFor(std::size_t length) const noexcept {
  return m_size != 0 && m_size + length > m_limitBytes;
}

// Where another writer holds the lock it is rotating right now; the line then goes to the
// old file. A file system without locks leaves rotation unguarded.
void LogFile::Rotate(std::size_t length) noexcept {
  const int descriptor = m_sink->descriptor;
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return;
  if (!IsStillAtPath()) {
    (void)Open();  // rotated by another writer; a failure shows as a missing sink
    return;
  }
  if (!IsFullFor(length)) {
    (void)::flock(descriptor, LOCK_UN);  // emptied by another writer
    return;
  }
  if (m_oldFiles > 0) ShiftOldFiles();
  if (m_oldFiles > 0 && !IsStillAtPath()) {
    (void)Open();  // closes the renamed file, which ends the lock
    return;
  }
  // Also where the directory refuses the renaming: the file must not grow for ever.
  if (::ftruncate(descriptor, 0) == 0) m_size = 0;
  (void)::flock(descriptor, LOCK_UN);
}

// A second sink, told to rotate as it opens, does the renaming. It goes on by emptying the
// file that it makes next, where another writer may have put a line by then; so it is stopped
// there.
void LogFile::ShiftOldFiles() const noexcept {
  try {
    spdlog::file_event_handlers handlers;
    handlers.before_open = [isOpened = false](const std::string& /*path*/) mutable {
      if (isOpened) throw spdlog::spdlog_ex("renamed");
      isOpened = true;
    };
    const RotatingSink shifter(m_path, 1, static_cast<std::size_t>(m_oldFiles), true, handlers);
  } catch (...) {  // the path shows whether the renaming was done
  }
}

bool LogFile::Write(std::string_view bytes) noexcept try {
  spdlog::details::log_msg message;
  message.payload = {bytes.data(), bytes.size()};
  m_sink->file.log(message);
  m_size += bytes.size();
  return true;
} catch (...) {  // no memory, or not all of it fitted on the disk
  Facts own;
  m_torn = m_torn || !own.Read(m_sink->descriptor) || own.size > m_size;
  return false;
}
