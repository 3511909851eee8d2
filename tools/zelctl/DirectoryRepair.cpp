#include "DirectoryRepair.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

#include "DataFiles.h"
#include "util/SecureWipe.h"
#include "zel_platform/prax.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr char kBackupName[] = "doctor-backup-";
constexpr char kModesFile[] = "modes";
constexpr char kRebuiltFile[] = "rebuilt.db";
constexpr mode_t kBackupDirectoryMode = 0700;
constexpr unsigned int kPrivateMode = 0600;
constexpr unsigned int kDatabaseMode = 0640;
constexpr int kMostBackupsASecond = 100;

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what + ", nothing was changed");
}

std::string Read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad() || !file.is_open()) Fail("cannot read " + path);
  return bytes;
}

bool Replace(const std::string& path, const std::string& bytes, unsigned int mode) {
  return PRAX_ReplaceFile(path.c_str(), bytes.data(), bytes.size(), mode) == 0;
}

// A new directory, of mode 0700.
std::string MakeBackupDirectory(const std::string& directory) {
  const std::time_t now = std::time(nullptr);
  struct tm utc = {};
  (void)::gmtime_r(&now, &utc);  // the year fits
  char time[32] = "";
  (void)std::strftime(time, sizeof(time), "%Y%m%d-%H%M%S", &utc);
  const std::string path = directory + "/" + kBackupName + time;
  for (int i = 0; i < kMostBackupsASecond; ++i) {
    std::string numbered = i == 0 ? path : path + "-" + std::to_string(i);
    if (::mkdir(numbered.c_str(), kBackupDirectoryMode) == 0) return numbered;
    if (errno != EEXIST) break;
  }
  Fail("cannot make " + path);
}

std::string ModeLine(const std::string& path, const std::string& name) {
  struct stat found;
  if (::lstat(path.c_str(), &found) != 0) return "";
  char mode[8] = "";
  (void)std::snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned int>(found.st_mode & 07777));
  return std::string(mode) + ' ' + (name.empty() ? "." : name) + '\n';
}

void SetOwner(const std::string& path, const struct stat& owner) {
  if (::lchown(path.c_str(), owner.st_uid, owner.st_gid) != 0) return;  // shows when looked at
}

void CopyInto(const std::string& backup, const std::string& name, const std::string& path) {
  std::string bytes = Read(path);
  const commonutil::WipeGuard wipe(bytes);
  const fs::path to = fs::path(backup) / name;
  if (to.parent_path() != fs::path(backup)) {
    (void)::mkdir(to.parent_path().c_str(), kBackupDirectoryMode);  // the copy tells
  }
  if (!Replace(to.string(), bytes, kPrivateMode)) Fail("cannot copy " + path);
}

}  // namespace

void DirectoryRepair::Run() {
  CopyTouched();
  for (const Finding& finding : m_examination.Findings()) Mend(finding);
}

void DirectoryRepair::CopyTouched() {
  std::set<std::string> touched;
  for (const Finding& finding : m_examination.Findings()) {
    touched.insert(finding.touched.begin(), finding.touched.end());
  }
  if (touched.empty()) return;
  m_backup = MakeBackupDirectory(m_directory);
  std::string modes;
  for (const std::string& name : touched) {
    modes += ModeLine(At(name), name);
    if (fs::is_regular_file(At(name))) CopyInto(m_backup, name, At(name));
  }
  if (!Replace(m_backup + "/" + kModesFile, modes, kPrivateMode)) Fail("cannot copy the modes");
}

// Failures show when the directory is examined again.
void DirectoryRepair::Mend(const Finding& finding) const {
  switch (finding.repair) {
    case Repair::kNone:
      return;
    case Repair::kSetMode:
      (void)::chmod(At(finding.touched[0]).c_str(), finding.mode);
      return;
    case Repair::kSetOwner: {
      struct stat owner;
      if (::stat(m_directory.c_str(), &owner) == 0) SetOwner(At(finding.touched[0]), owner);
      return;
    }
    case Repair::kTakeHealed: {
      std::string bytes = Read(m_examination.Staged().Path() + "/" + finding.file);
      const commonutil::WipeGuard wipe(bytes);
      Put(finding.file, bytes, kPrivateMode);
      return;
    }
    case Repair::kTrimSalt:
      Put(kSaltFile, m_examination.Key().trimmedLine, kDatabaseMode);
      return;
    case Repair::kRemove:
      for (const std::string& name : finding.touched) (void)::unlink(At(name).c_str());
      return;
    case Repair::kRebuild:
      Rebuild();
      return;
  }
}

void DirectoryRepair::Put(const std::string& name, const std::string& bytes,
                          unsigned int mode) const {
  const std::string path = At(name);
  const std::string like = fs::exists(path) ? path : fs::path(path).parent_path().string();
  struct stat owner;
  const bool isKnown = ::stat(like.c_str(), &owner) == 0;
  if (Replace(path, bytes, mode) && isKnown) SetOwner(path, owner);
}

// The side files go first: they belong to the old content and would be laid over the new one.
void DirectoryRepair::Rebuild() const {
  const std::string rebuilt = m_examination.Staged().Of(kRebuiltFile);
  (void)::unlink(rebuilt.c_str());  // of a finding before
  if (!CacheFile::Write(rebuilt, m_examination.EffectiveKey(), m_examination.Rows())) return;
  for (const char* const name : {kJournalFile, kWriteAheadFile, kSharedIndexFile}) {
    (void)::unlink(At(name).c_str());
  }
  Put(kDatabaseFile, Read(rebuilt), kDatabaseMode);
}

}  // namespace zelctl
