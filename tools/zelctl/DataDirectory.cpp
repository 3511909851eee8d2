#include "DataDirectory.h"

#include <filesystem>
#include <system_error>

#include "Text.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr char kPlaceholder[] = "${DATA}";
constexpr char kLogDirectory[] = "log";
// The library holds a directory in 512 bytes and takes a longer one for the root of the file
// system; "/log/" and the NUL must fit behind the path.
constexpr std::size_t kLongestPath = 512 - sizeof("/log/");
constexpr fs::perms kDirectoryMode =
    fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec;

[[noreturn]] void Refuse(const fs::path& path, const std::error_code& error) {
  throw UsageError("cannot make the data directory " + Quoted(path.string()) + ": " +
                   error.message() + "; choose another one with --data DIR");
}

void MakeDirectory(const fs::path& path) {
  std::error_code error;
  if (fs::is_directory(path, error)) return;
  if (fs::exists(path, error)) Refuse(path, std::make_error_code(std::errc::not_a_directory));
  if (path.has_relative_path()) MakeDirectory(path.parent_path());
  // Also false, without an error, when another process was faster.
  const bool made = fs::create_directory(path, error);
  if (error) Refuse(path, error);
  if (made) fs::permissions(path, kDirectoryMode, error);
  if (error) Refuse(path, error);
}

// Absolute, without "..", and without a "/" at its end.
fs::path Resolved(const std::string& path) {
  std::error_code error;
  fs::path resolved = fs::weakly_canonical(fs::absolute(path, error), error);
  if (error) Refuse(path, error);
  if (!resolved.has_filename() && resolved.has_relative_path()) resolved = resolved.parent_path();
  return resolved;
}

}  // namespace

DataDirectory::DataDirectory(const std::string& path) {
  const fs::path resolved = Resolved(path);
  if (resolved.native().size() > kLongestPath) {
    throw UsageError("the path of the data directory is longer than " +
                     std::to_string(kLongestPath) + " bytes; choose a shorter one with --data DIR");
  }
  MakeDirectory(resolved);
  MakeDirectory(resolved / kLogDirectory);
  m_escapedPath = JsonEscaped(resolved.string());
}

std::string DataDirectory::Expand(const std::string& line) const {
  std::string expanded;
  std::size_t done = 0;
  for (std::size_t at; (at = line.find(kPlaceholder, done)) != std::string::npos;) {
    expanded.append(line, done, at - done);
    expanded += m_escapedPath;
    done = at + sizeof(kPlaceholder) - 1;
  }
  return expanded.append(line, done, std::string::npos);
}

}  // namespace zelctl
