#include "ModuleFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <tuple>
#include <utility>

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr char kExtension[] = ".txt";
constexpr char kSettingsFile[] = "config.txt";  // beside the logs where one folder holds all
constexpr char kLogFolder[] = "log";
constexpr std::size_t kMostDigits = 6;
constexpr std::size_t kExtensionLength = sizeof(kExtension) - 1;
constexpr std::size_t kReadBytes = 65536;
constexpr int kMostOldFiles = 1000;

// Nothing for what is no log by its name.
std::optional<LogFile> ParseName(const fs::path& path) {
  std::string stem = path.stem().string();
  if (path.extension() != kExtension || path.filename() == kSettingsFile) return std::nullopt;
  const std::size_t dot = stem.rfind('.');
  const std::string number = dot == std::string::npos ? "" : stem.substr(dot + 1);
  const bool isOld = !number.empty() && number.size() <= kMostDigits &&
                     number.find_first_not_of("0123456789") == std::string::npos;
  if (isOld) stem.erase(dot);
  return LogFile{path.string(), stem, isOld ? std::stoi(number) : 0};
}

void AddLogsOf(const fs::path& folder, std::vector<LogFile>* logs) {
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code vanished;
    const std::optional<LogFile> log = ParseName(entry->path());
    if (log && entry->is_regular_file(vanished)) logs->push_back(*log);
  }
  if (error) throw std::system_error(error, "cannot read the folder " + folder.string());
}

}  // namespace

std::vector<LogFile> FindLogs(const std::string& directory) {
  std::vector<LogFile> logs;
  AddLogsOf(directory, &logs);
  const fs::path folder = fs::path(directory) / kLogFolder;
  std::error_code none;
  if (fs::is_directory(fs::symlink_status(folder, none))) AddLogsOf(folder, &logs);
  std::sort(logs.begin(), logs.end(), [](const LogFile& a, const LogFile& b) {
    return std::tie(a.module, b.number, a.path) < std::tie(b.module, a.number, b.path);
  });
  return logs;
}

ModuleFile::ModuleFile(std::string path, Start start) : m_path(std::move(path)), m_reader(m_path) {
  if (start == Start::kAtEnd) m_reader.SkipToEnd();
}

std::vector<std::string> ModuleFile::TakeNewLines() {
  m_reader.AppendNewTo(m_text);
  std::vector<Reader> newer = NewerFiles();
  m_reader.AppendNewTo(m_text);  // what came between the read and the rotation
  for (auto next = newer.rbegin(); next != newer.rend(); ++next) {
    m_reader = std::move(*next);
    m_reader.AppendNewTo(m_text);
  }
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (std::size_t end; (end = m_text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines.push_back(m_text.substr(begin, end + 1 - begin));
  }
  m_text.erase(0, begin);
  return lines;
}

std::string ModuleFile::NameOfOld(int number) const {
  if (number == 0) return m_path;
  return m_path.substr(0, m_path.size() - kExtensionLength) + "." + std::to_string(number) +
         kExtension;
}

// From new to old: a rotation meanwhile shows a file twice, which is seen, but hides none. When the
// file being read is there no more, the times tell where the files before it begin.
std::vector<ModuleFile::Reader> ModuleFile::NewerFiles() const {
  std::vector<Reader> newer;
  for (int number = 0; number <= kMostOldFiles; ++number) {
    Reader file(NameOfOld(number));
    if (!file.IsOpen() && number == 0) continue;  // between two steps of a rotation
    if (!file.IsOpen() || file.IsSameFile(m_reader) || file.IsOlderThan(m_reader)) break;
    const bool isKnown = std::any_of(newer.begin(), newer.end(),
                                     [&](const Reader& other) { return other.IsSameFile(file); });
    if (!isKnown) newer.push_back(std::move(file));
    if (!m_reader.IsOpen()) break;  // nothing older was ever read
  }
  return newer;
}

// O_NONBLOCK keeps a pipe that lies at the path from blocking.
ModuleFile::Reader::Reader(const std::string& path)
    : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)) {
  if (!IsOpen()) return;
  if (::fstat(m_descriptor, &m_facts) == 0 && S_ISREG(m_facts.st_mode)) return;
  ::close(m_descriptor);
  m_descriptor = -1;
}

ModuleFile::Reader::~Reader() {
  if (IsOpen()) ::close(m_descriptor);  // only read: closing loses nothing
}

ModuleFile::Reader::Reader(Reader&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1)),
      m_offset(other.m_offset),
      m_facts(other.m_facts) {}

ModuleFile::Reader& ModuleFile::Reader::operator=(Reader&& other) noexcept {
  std::swap(m_descriptor, other.m_descriptor);
  std::swap(m_offset, other.m_offset);
  std::swap(m_facts, other.m_facts);
  return *this;
}

bool ModuleFile::Reader::IsSameFile(const Reader& other) const {
  return IsOpen() && other.IsOpen() && m_facts.st_dev == other.m_facts.st_dev &&
         m_facts.st_ino == other.m_facts.st_ino;
}

bool ModuleFile::Reader::IsOlderThan(const Reader& other) const {
  const timespec& own = m_facts.st_mtim;
  const timespec& others = other.m_facts.st_mtim;
  return own.tv_sec != others.tv_sec ? own.tv_sec < others.tv_sec : own.tv_nsec < others.tv_nsec;
}

void ModuleFile::Reader::SkipToEnd() { m_offset = m_facts.st_size; }

void ModuleFile::Reader::AppendNewTo(std::string& text) {
  if (!IsOpen()) return;
  (void)::fstat(m_descriptor, &m_facts);         // an open file's facts can always be had
  if (m_facts.st_size < m_offset) m_offset = 0;  // was emptied
  for (;;) {
    const std::size_t length = text.size();
    text.resize(length + kReadBytes);
    const ssize_t count = ::pread(m_descriptor, text.data() + length, kReadBytes, m_offset);
    text.resize(length + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    m_offset += count;
  }
}

FollowedLogs::FollowedLogs(std::string directory) : m_directory(std::move(directory)) {
  Find(ModuleFile::Start::kAtEnd);
}

void FollowedLogs::TakeNewLines(const Take& take) {
  try {
    Find(ModuleFile::Start::kAtBegin);
  } catch (const std::system_error&) {
    // The folder may come again.
  }
  for (auto& [path, followed] : m_files) {
    for (const std::string& line : followed.file.TakeNewLines()) take(followed.module, line);
  }
}

void FollowedLogs::Find(ModuleFile::Start start) {
  for (const LogFile& log : FindLogs(m_directory)) {
    if (log.number != 0 || m_files.count(log.path) != 0) continue;
    m_files.emplace(log.path, Followed{log.module, ModuleFile(log.path, start)});
  }
}

}  // namespace zelctl
