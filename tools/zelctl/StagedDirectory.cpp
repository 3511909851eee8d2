#include "StagedDirectory.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "DataFiles.h"
#include "Signals.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

// The index of a write-ahead log is made anew from the log.
constexpr const char* kCopied[] = {kDatabaseFile, kJournalFile,  kWriteAheadFile,
                                   kSaltFile,     kKeyStoreFile, kKeyStoreTwinFile};
constexpr const char* kDatabaseFiles[] = {kDatabaseFile, kJournalFile, kWriteAheadFile};

void CopyPrivately(const fs::path& from, const fs::path& to) {
  std::error_code error;
  const fs::file_type type = fs::status(from, error).type();
  if (type == fs::file_type::not_found) return;
  if (type != fs::file_type::regular && !error) return;
  if (error || !fs::copy_file(from, to, error)) {
    throw std::system_error(error, "cannot copy " + from.string() + " to " + to.string());
  }
  fs::permissions(to, fs::perms::owner_read | fs::perms::owner_write);
}

std::string MakePrivateDirectory() {
  std::error_code error;
  std::string path = (fs::temp_directory_path(error) / "zelctl.XXXXXX").string();
  if (!error && ::mkdtemp(path.data()) != nullptr) return path;  // mode 0700
  throw std::system_error(error ? error : std::error_code(errno, std::generic_category()),
                          "no temporary directory, set TMPDIR to another one");
}

}  // namespace

StagedDirectory::StagedDirectory(const std::string& source)
    : m_source(fs::absolute(source).string()), m_path(MakePrivateDirectory()) {
  try {
    fs::create_directory(Of(kKeyStoreFolder));
    for (const char* const name : kCopied) {
      ThrowIfInterrupted();
      CopyPrivately(fs::path(m_source) / name, Of(name));
    }
  } catch (...) {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
    throw;
  }
}

StagedDirectory::~StagedDirectory() {
  std::error_code ignored;  // nobody could do anything about it
  fs::remove_all(m_path, ignored);
}

void StagedDirectory::UseRealDatabase() {
  for (const char* const name : kDatabaseFiles) fs::remove(Of(name));
  fs::create_symlink(fs::path(m_source) / kDatabaseFile, Of(kDatabaseFile));
}

}  // namespace zelctl
