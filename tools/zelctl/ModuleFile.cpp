#include "ModuleFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

namespace zelctl {
namespace {

constexpr char kExtension[] = ".txt";
constexpr std::size_t kExtensionLength = sizeof(kExtension) - 1;
constexpr std::size_t kReadBytes = 65536;
constexpr int kMostOldFiles = 1000;

bool EndsInNumber(const std::string& stem) {
  const std::size_t dot = stem.rfind('.');
  return dot != std::string::npos && dot + 1 < stem.size() &&
         stem.find_first_not_of("0123456789", dot + 1) == std::string::npos;
}

}  // namespace

std::optional<std::string> ModuleFile::ModuleOf(const std::string& fileName) {
  if (fileName.size() <= kExtensionLength) return std::nullopt;
  const std::string stem = fileName.substr(0, fileName.size() - kExtensionLength);
  if (stem + kExtension != fileName || EndsInNumber(stem)) return std::nullopt;
  return stem;
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

}  // namespace zelctl
