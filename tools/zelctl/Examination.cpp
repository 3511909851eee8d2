#include "Examination.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "DataFiles.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long long kLeastFreeBytes = std::uint64_t{1024} * 1024;
constexpr mode_t kPermissions = 0777;
constexpr mode_t kOwnerOfFile = 0600;
constexpr mode_t kOwnerOfFolder = 0700;
constexpr char kStartsEmpty[] =
    "None is needed: the client makes it anew at its next start, and its cache begins empty. To "
    "keep the cache, restore \"zorm\", sdkcache_config.db and sdkcache.db together from one "
    "backup.";
constexpr char kRebuildRemedy[] =
    "Run zelctl doctor with --repair, which makes the database anew with the entries that can be "
    "read.";

std::string Octal(mode_t mode) {
  char text[8] = "";
  (void)std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned int>(mode));
  return text;
}

bool IsThere(const std::string& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

// A directory in the place of a file is not the client's.
bool IsRemovable(const std::string& path) {
  std::error_code error;
  return IsThere(path) && fs::symlink_status(path, error).type() != fs::file_type::directory;
}

std::string PageText(unsigned int page, std::uint32_t pageBytes) {
  const auto begin = static_cast<unsigned long long>(page - 1) * pageBytes;
  return std::to_string(page) + " (bytes " + std::to_string(begin) + " to " +
         std::to_string(begin + pageBytes - 1) + ")";
}

std::string DamageText(const CacheCheck& check, std::uint32_t pageBytes) {
  if (check.damagedPages.empty()) return "is not consistent: " + check.remarks.back();
  std::string text = check.damagedPages.size() == 1 ? "damaged page " : "damaged pages ";
  for (std::size_t i = 0; i < check.damagedPages.size(); ++i) {
    text += (i == 0 ? "" : ", ") + PageText(check.damagedPages[i], pageBytes);
  }
  return text + "; there may be more behind it";
}

}  // namespace

Examination::Examination(const std::string& directory)
    : m_directory(directory), m_staged(directory) {
  ExamineSpace();
  if (!HoldsData()) {
    Add({"no-data",
         ".",
         "there is no data of a client here",
         "It is another directory, or no client has run in it yet.",
         "Name the directory that the client gives as \"dbPath\". A client makes all that it needs "
         "at its first start.",
         Repair::kNone,
         {}});
    return;
  }
  FindDatabaseKey(m_staged, &m_key);
  ExamineModes();
  ExamineKeyStore();
  ExamineDatabase();  // tells which salt line was meant
  ExamineSalt();
}

const std::string& Examination::EffectiveKey() const {
  return m_usesTrimmedKey ? m_key.trimmedKey : m_key.key;
}

bool Examination::HoldsData() const {
  constexpr const char* kNames[] = {kDatabaseFile, kSaltFile, kKeyStoreFolder, kTrackFolder};
  return !DependentFiles().empty() ||
         std::any_of(std::begin(kNames), std::end(kNames),
                     [this](const char* name) { return IsThere(m_directory + "/" + name); });
}

void Examination::ExamineModes() {
  struct stat directory;
  if (::stat(m_directory.c_str(), &directory) != 0) return;
  for (const MostOpenMode& file : kMostOpenModes) {
    struct stat found;
    if (::lstat((m_directory + "/" + file.name).c_str(), &found) != 0) continue;
    // One that root has made tells nothing of the client's user.
    if (found.st_uid != directory.st_uid && directory.st_uid != 0) {
      Add({"owner-differs",
           file.name,
           "it belongs to user " + std::to_string(found.st_uid) + ", the directory to user " +
               std::to_string(directory.st_uid) + ", so the client may be kept out",
           "It was restored, or made by a run, as another user.",
           "As root, run zelctl doctor with --repair, or: chown --reference=. " +
               std::string(file.name),
           Repair::kSetOwner,
           {file.name}});
    }
    const mode_t mode = found.st_mode & kPermissions;
    const bool isFolder = (file.mode & S_IXUSR) != 0;
    const mode_t wanted = (mode & file.mode) | (isFolder ? kOwnerOfFolder : kOwnerOfFile);
    if (S_ISLNK(found.st_mode) || S_ISDIR(found.st_mode) != isFolder || mode == wanted) continue;
    const bool isTooOpen = (mode & ~file.mode) != 0;
    const std::string name = *file.name == '\0' ? "." : file.name;
    Add({isTooOpen ? "mode-too-open" : "mode-too-closed",
         name,
         "its mode " + Octal(mode) +
             (isTooOpen ? " lets other users in" : " keeps the client itself out"),
         "It was copied, restored or changed by hand.",
         "Run zelctl doctor with --repair, or: chmod " + Octal(wanted) + " " + name,
         Repair::kSetMode,
         {file.name},
         wanted});
  }
}

void Examination::ExamineSpace() {
  struct statvfs found;
  if (::statvfs(m_directory.c_str(), &found) != 0 || found.f_blocks == 0) return;
  const bool noFiles = found.f_files != 0 && found.f_favail == 0;
  const auto freeBytes = static_cast<unsigned long long>(found.f_bavail) * found.f_frsize;
  if (!noFiles && freeBytes >= kLeastFreeBytes) return;
  Add({"disk-full",
       ".",
       noFiles ? "its file system takes no further file"
               : "its file system has only " + std::to_string(freeBytes / 1024) + " KB left",
       "Logs or other data have filled it.",
       "Free space; until then new entries of the cache are lost and the client may not start.",
       Repair::kNone,
       {}});
}

// With the side files that SQLite may have left, which go before the file that they belong to.
std::vector<std::string> Examination::DatabaseFiles() const {
  std::vector<std::string> files;
  for (const char* const name : {kJournalFile, kWriteAheadFile, kSharedIndexFile, kDatabaseFile}) {
    if (IsRemovable(m_directory + "/" + name)) files.emplace_back(name);
  }
  return files;
}

// What is of no use without the key store.
std::vector<std::string> Examination::DependentFiles() const {
  std::vector<std::string> files = DatabaseFiles();
  if (IsRemovable(m_directory + "/" + kSaltFile)) files.emplace_back(kSaltFile);
  return files;
}

// The rest of what depends on something that is lost goes, so that the client begins anew.
void Examination::AddLoss(const char* id, const char* file, const std::string& problem,
                          const std::string& cause, const std::vector<std::string>& useless) {
  Add({id, file, problem, cause, kStartsEmpty, useless.empty() ? Repair::kNone : Repair::kRemove,
       useless});
}

void Examination::ExamineKeyStore() {
  std::vector<std::string> useless = DependentFiles();
  switch (m_key.state) {
    case KeyState::kStoreMissing:
      AddLoss("key-store-missing", kKeyStoreFile, "the key store is missing, both of its files",
              useless.empty() ? "No client has run in this directory yet."
                              : "The folder \"zorm\" was removed or not restored.",
              useless);
      return;
    case KeyState::kStoreDamaged:
      for (const char* const name : {kKeyStoreFile, kKeyStoreTwinFile}) {
        if (IsRemovable(m_directory + "/" + name)) useless.emplace_back(name);
      }
      AddLoss("key-store-damaged", kKeyStoreFile,
              "the key store is damaged, and its twin is no help",
              "The disk fails or was full, or the files were changed.", useless);
      return;
    case KeyState::kStoreFailed:
      Add({"key-store-unusable",
           kKeyStoreFile,
           "the key store does not open, code " + std::to_string(m_key.code),
           "The system refuses it.",
           "See zelctl explain " + std::to_string(m_key.code) + ".",
           Repair::kNone,
           {}});
      return;
    default:
      ExamineStoreFile(kKeyStoreFile, m_key.store);
      ExamineStoreFile(kKeyStoreTwinFile, m_key.twin);
  }
}

void Examination::ExamineStoreFile(const char* name, StoreFileState state) {
  if (state == StoreFileState::kIntact) return;
  const bool isMissing = state == StoreFileState::kMissing;
  Add({isMissing ? "key-store-file-missing" : "key-store-file-damaged",
       name,
       isMissing ? "the file is missing; its twin is intact"
                 : "the file is damaged, or holds another key; its twin heals it",
       isMissing ? "It was removed or not restored." : "The disk fails, or the file was changed.",
       "None is needed: the client rebuilds it from its twin at the next start, and so does "
       "--repair. Check the disk.",
       Repair::kTakeHealed,
       {name}});
}

void Examination::ExamineSalt() {
  if (!IsThere(m_directory + "/" + kSaltFile)) {
    // Without the key store nothing more can be lost.
    const bool hasStore = m_key.state == KeyState::kSaltMissing;
    AddLoss("salt-missing", kSaltFile, "the salt line is missing",
            "It was removed or not restored, or no client has run here yet.",
            hasStore ? DatabaseFiles() : std::vector<std::string>());
    return;
  }
  if (m_usesTrimmedKey) {
    Add({"salt-line-break",
         kSaltFile,
         "the salt line ends in a line break, which counts as salt",
         "It was opened and saved in an editor.",
         "Run zelctl doctor with --repair before the client starts, which would make the database "
         "anew.",
         Repair::kTrimSalt,
         {kSaltFile}});
    return;
  }
  switch (m_key.state) {
    case KeyState::kSaltMissing:
      AddLoss("salt-missing", kSaltFile, "the file of the salt line is empty",
              "The disk was full or the file was changed.", DependentFiles());
      return;
    case KeyState::kSaltMalformed:
      AddLoss("salt-malformed", kSaltFile,
              "the salt line is malformed: it has to be hex digits, \"|\", hex digits",
              "The disk fails, or the file was changed.", DependentFiles());
      return;
    case KeyState::kSaltUnreadable:
      AddLoss("salt-undecryptable", kSaltFile,
              "the secret does not decrypt with the key store's key",
              "The key store or this file was replaced without the other, or the line is damaged.",
              DependentFiles());
      return;
    default:
      return;
  }
}

// An encrypted database says nothing without its key.
void Examination::ExamineDatabase() {
  auto file = std::make_unique<CacheFile>(m_staged.Of(kDatabaseFile), m_key.key);
  if (file->GetState() == CacheFile::State::kUnreadable && !m_key.trimmedKey.empty()) {
    auto trimmed = std::make_unique<CacheFile>(m_staged.Of(kDatabaseFile), m_key.trimmedKey);
    m_usesTrimmedKey = trimmed->GetState() == CacheFile::State::kOpen;
    if (m_usesTrimmedKey) file = std::move(trimmed);
  }
  if (m_key.state == KeyState::kReady && file->HasForeignLog()) {
    Add({"log-foreign",
         kWriteAheadFile,
         "the log is of another database or key, and hides the database",
         "It was copied here, or was left when the database was restored without it.",
         "None is needed: the client removes it at its next start, and so does --repair.",
         Repair::kRemove,
         {kWriteAheadFile, kSharedIndexFile}});
  }
  const bool isThere = IsThere(m_directory + "/" + kDatabaseFile);
  if (isThere && file->GetState() == CacheFile::State::kMissing) {  // nothing that was copied
    Add({"database-unusable",
         kDatabaseFile,
         "the database is no regular file",
         "Something else was put in its place.",
         "Move it away; the client makes a new one.",
         Repair::kNone,
         {}});
  } else if (!isThere || file->GetState() == CacheFile::State::kEmpty) {
    Add({"database-missing",
         kDatabaseFile,
         isThere ? "the database is empty" : "the database is missing",
         "It was removed or not restored, or no client has run here yet.",
         "None is needed: the client makes it at its next start.",
         Repair::kNone,
         {}});
  } else if (m_key.state == KeyState::kReady) {
    ExamineContent(file.get());
  }
}

void Examination::ExamineContent(CacheFile* file) {
  if (!file->CanRead()) {
    AddLoss("database-unreadable", kDatabaseFile,
            "the database does not open with its key: wrong key, or damaged page 1",
            "Key store, salt line and database do not belong together, as after a half restored "
            "backup; or the disk fails; or a build with another SQLite has made the file.",
            DatabaseFiles());
    return;
  }
  bool isComplete = false;  // the check tells
  m_rows = file->Rows(&isComplete);
  if (file->GetState() == CacheFile::State::kUnencrypted) {
    AddRebuild("database-older-format", "the database has an older format: it is not encrypted",
               "A version without encryption, or another program, has made it.");
  }
  const CacheCheck check = file->Check();
  if (file->IsCutOff()) {
    AddRebuild("database-cut-off", "the database ends before its last page",
               "The disk was full, or the file was not copied to its end.");
  } else if (!check.IsSound()) {
    AddRebuild("database-page-damaged", DamageText(check, file->PageSize()),
               "The disk fails, or the file was copied while the client ran.");
  } else if (!file->HasTable()) {
    AddRebuild("database-table-missing", "the table ConfigCacheTab is missing",
               "The client was stopped while it made the database, or another program changed it.");
  } else if (!file->HasColumns()) {
    AddRebuild("database-older-format",
               "the database has an older format: the table ConfigCacheTab lacks a column",
               "Another version has made it.");
  } else if (!file->HasIndex()) {
    AddRebuild("database-index-missing", "the index CONFIGCACHE_UNIQUE_INDEX is missing",
               "The client was stopped while it made the database, or another program changed it.");
  }
}

void Examination::AddRebuild(const char* id, const std::string& problem, const std::string& cause) {
  Add({id, kDatabaseFile, problem, cause, kRebuildRemedy, Repair::kRebuild, DatabaseFiles()});
}

}  // namespace zelctl
