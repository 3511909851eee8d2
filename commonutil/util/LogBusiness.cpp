#include "util/LogBusiness.h"

#include <cstddef>
#include <utility>

#include "util/LogBridges.h"
#include "zel_platform/loghooks.h"
#include "zel_platform/prax.h"
#include "zel_platform/securec.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

struct ModuleLog {
  const char* name;
  int first;  // the numbers are the logger's: size and old files
  int second;
};
constexpr ModuleLog kSideModules[] = {
    {"orb_socket", 3072, 2},
    {"zel_ffmpeg", 512, 0},
    {"zel_timer", 205, 1},
    {"native_sdk_frequency", 5120, 2},
};
constexpr ModuleLog kMainModule = {"native_sdk", 5120, 7};

constexpr char kExtension[] = ".txt";
constexpr std::size_t kFileNameBytes = 256;
constexpr int kPathRegulation = 4;
constexpr unsigned int kDirectoryMode = 0755;
constexpr int kDnsErrors = 3;
constexpr int kDnsWarnings = 4;
constexpr int kDnsAll = 5;

void Reopen(const ModuleLog& module, const std::string& path, tagLoggerLevel level) {
  const std::string name = path + module.name + kExtension;
  char file[kFileNameBytes] = {};
  // A longer name is cut; what an unusable one means is for the logger to say.
  (void)strncpy_s(file, sizeof(file), name.c_str(), sizeof(file) - 1);
  LogStream::UnInitLog(module.name);
  (void)LogStream::InitLog(module.name, file, module.first, module.second, level);
}

void RegisterBridges() {
  orb_dns_register_log_func(SupportCommonLog);
  PRAX_TimerRegDebugTrace(TimerDotLog);
  PRAX_OS_RegDebugTrace(OsAdapaterDotLog);
  orb_websocket_reg_log_fn(WebSocketCommonLog);
  SetErrTrackCallback(LogDotLog);
}

void MakeDirectory(const std::string& path) {
  void* const directory = PRAX_OpenDir(path.c_str());
  if (directory != nullptr) {
    (void)PRAX_CloseDir(directory);
  } else {
    (void)PRAX_MkDir(path.c_str(), kDirectoryMode);
  }
}

}  // namespace

Mutex& LogBusiness::m_lock = *new Mutex;
std::string& LogBusiness::trueLogPath = *new std::string;
std::string& LogBusiness::logDirPath = *new std::string;
std::uint64_t LogBusiness::logKeepDays = 0;
std::string& LogBusiness::typeDesc = *new std::string;
std::atomic<bool> LogBusiness::isRun{false};
std::atomic<std::time_t> LogBusiness::baseTime{0};
std::atomic<int> LogBusiness::delFileCount{0};

void LogBusiness::SetLogPath(std::string path, tagLoggerLevel level) {
  LogOneLog_WriteSystemLog(__func__, "SetLogPath. [%s]",
                           LogStream::FilterWord(path, kPathRegulation).c_str());
  {
    MutexLock hold(m_lock);
    if (path == trueLogPath) return;
    trueLogPath = path;
  }
  if (path.empty()) return;
  for (const ModuleLog& module : kSideModules) {
    LogOneLog_Write_EX(module.name, LOGGER_LEVEL_INFO, __func__, "Init module log. level: %d",
                       static_cast<int>(level));
    Reopen(module, path, level);
  }
  Reopen(kMainModule, path, LOGGER_LEVEL_INFO);
  orb_dns_set_log_level(GetDnsLogLeveFromLogger(level));
  RegisterBridges();
}

std::string LogBusiness::GetLogPath() {
  MutexLock hold(m_lock);
  return trueLogPath;
}

std::string LogBusiness::GenerateLogPath(std::string name) {
  std::string path = GetLogPath();
  if (path.empty() || path.back() != '/') path += '/';
  path += name + "/";
  MakeDirectory(path);
  return path;
}

int LogBusiness::GetDnsLogLeveFromLogger(tagLoggerLevel level) {
  switch (level) {
    case LOGGER_LEVEL_ERROR:
      return kDnsErrors;
    case LOGGER_LEVEL_WARNING:
      return kDnsWarnings;
    default:
      return kDnsAll;
  }
}

void LogBusiness::InitConfig(std::string directory, unsigned long days) {
  MutexLock hold(m_lock);
  logDirPath = std::move(directory);
  logKeepDays = days;
}

}  // namespace commonutil
