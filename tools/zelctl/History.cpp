#include "History.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "Text.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kPrivateMode = 0600;

// Empty when the user has no home.
fs::path StateDirectory() {
  const char* const state = std::getenv("XDG_STATE_HOME");
  // The convention ignores a relative one.
  if (state != nullptr && *state == '/') return state;
  const char* const home = std::getenv("HOME");
  if (home == nullptr || *home != '/') return {};
  return fs::path(home) / ".local" / "state";
}

void CannotKeep(const std::string& path, int error) {
  Complain("no history is kept, " + Quoted(path) + ": " + std::generic_category().message(error));
}

}  // namespace

History::History() {
  const fs::path state = StateDirectory();
  if (!state.empty()) Load(state / "zelctl");
}

History::~History() {
  if (m_fd >= 0) (void)::close(m_fd);
}

void History::Load(const std::string& directory) {
  std::error_code error;
  if (fs::create_directories(directory, error)) {
    fs::permissions(directory, fs::perms::owner_all, error);
  }
  if (error) return CannotKeep(directory, error.value());
  const std::string path = directory + "/history";
  m_fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kPrivateMode);
  if (m_fd < 0 || ::fchmod(m_fd, kPrivateMode) != 0) return CannotKeep(path, errno);
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) m_lines.push_back(line);
  if (m_lines.size() <= 2 * static_cast<std::size_t>(kMostLines)) return;
  m_lines.erase(m_lines.begin(), m_lines.end() - kMostLines);
  if (::ftruncate(m_fd, 0) != 0) return CannotKeep(path, errno);
  for (const std::string& line : std::vector<std::string>(m_lines)) Add(line);
}

void History::Add(const std::string& line) {
  if (m_fd < 0) return;
  const std::string text = m_hider.Hide(line) + '\n';
  // A line that does not fit on the disk is no reason to stop.
  if (::write(m_fd, text.data(), text.size()) < 0) Complain("the line is not in the history");
}

}  // namespace zelctl
