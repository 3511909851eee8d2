#include "CommonUtilConfig.h"

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "publicInc/ResultCode.h"
#include "util/FileHandle.h"
#include "util/Log.h"
#include "zel_platform/prax.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/CommonUtilConfig";
constexpr char kFileName[] = "config.txt";
constexpr std::size_t kReadBytes = std::size_t{64} * 1024;

using Settings = std::map<std::string, std::string>;

std::string FileIn(const std::string& dir) {
  const bool isClosed = !dir.empty() && dir.back() == '/';
  return dir + (isClosed ? "" : "/") + kFileName;
}

void TakeLine(std::string_view line, Settings& settings) {
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) return;
  settings.emplace(line.substr(0, equals), line.substr(equals + 1));  // keeps an earlier one
}

// Takes the lines that `text` completes, and leaves the piece behind the last of them in `begun`.
void TakeLines(std::string_view text, std::string& begun, Settings& settings) {
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    if (begun.empty()) {
      TakeLine(text.substr(0, end), settings);
    } else {
      begun += text.substr(0, end);
      TakeLine(begun, settings);
      begun.clear();
    }
    text.remove_prefix(end + 1);
  }
  begun += text;
}

Settings ReadSettings(const std::string& path) {
  Settings settings;
  const FileHandle file(PRAX_Fopen(path.c_str(), "r+"));
  if (file == nullptr) return settings;
  std::vector<char> piece(kReadBytes);
  std::string begun;  // a line that the next piece goes on with
  for (;;) {
    const std::size_t size = PRAX_Fread(piece.data(), 1, piece.size(), file.get());
    if (size == 0) break;
    TakeLines({piece.data(), size}, begun, settings);
  }
  TakeLine(begun, settings);
  return settings;
}

}  // namespace

ConfigManager& ConfigManager::GetInst() {
  static ConfigManager& instance = *new ConfigManager;
  return instance;
}

bool ConfigManager::Exists(const std::string& path) {
  PRAX_STAT status = {};
  return PRAX_Stat(path.c_str(), &status) == 0;
}

int ConfigManager::InitConfig(const std::string& dir) {
  if (!Enter(dir)) {
    ZEL_LOG(kWarning) << "has inited config!";
    return kFailed;
  }
  const std::string path = FileIn(dir);
  if (Exists(path)) {
    (void)readConfig();  // fails before the initialisation only
  } else {
    // Never empties one that has just appeared.
    const FileHandle created(PRAX_Fopen(path.c_str(), "a"));
  }
  return kOk;
}

int ConfigManager::readConfig() {
  std::string path;
  {
    MutexLock hold(m_lock);
    if (inited < 1) return kFailed;
    path = configPath;
  }
  Settings read = ReadSettings(path);
  MutexLock hold(m_lock);
  configs.merge(read);
  return kOk;
}

std::string ConfigManager::GetConfig(const std::string& key) {
  MutexLock hold(m_lock);
  const auto found = configs.find(key);
  return found == configs.end() ? std::string() : found->second;
}

std::map<std::string, std::string> ConfigManager::GetConfigs() {
  MutexLock hold(m_lock);
  return configs;
}

// False when somebody has been here before.
bool ConfigManager::Enter(const std::string& dir) {
  MutexLock hold(m_lock);
  if (inited >= 1) return false;
  inited = 1;
  configPath = FileIn(dir);
  return true;
}

}  // namespace commonutil
