#include "util/LogCleaner.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <json/value.h>

#include "util/Boundary.h"
#include "util/Log.h"
#include "util/LogBusiness.h"
#include "util/PublicUtil.h"
#include "util/ScopeGuard.h"
#include "zel_platform/prax.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/PublicUtil";
constexpr char kThreadName[] = "zel_log_clean";
constexpr std::uint64_t kFewestDays = 3;
constexpr std::uint64_t kMostDays = 30;
constexpr std::uint64_t kSecondsPerDay = 86400;
constexpr std::uint64_t kMsPerSecond = 1000;

constexpr char kAfterLoginDesc[] = "Del_When_Login";
constexpr char kAfterConferenceDesc[] = "Del_When_ConfEnd";
constexpr char kEventId[] = "1";
constexpr char kEventName[] = "ut_event_sdk_clean_log";
constexpr char kTypeKey[] = "type";
constexpr char kPathKey[] = "logPath";
constexpr char kDaysKey[] = "days";
constexpr char kFilesKey[] = "files";

constexpr const char* kOldLogPrefixes[] = {"zel", "orb"};
constexpr char kOldLogMark[] = ".log";
constexpr char kKeyInfoDirectory[] = "sdk_key_log";
constexpr const char* kKeyInfoFiles[] = {"sdk_call_key_info.txt", "sdk_zel_key_info.txt",
                                         "sdk_orb_key_info.txt"};
constexpr char kRtcDirectory[] = "rtc";

// The entries of a directory; none when it cannot be read.
class Entries {
 public:
  Entries(const std::string& directory, int (*filter)(const dirent*)) {
    m_count = PRAX_ScanDir(directory.c_str(), &m_list, filter);
  }
  ~Entries() { PRAX_DestoryNameList(m_list, m_count); }
  Entries(const Entries&) = delete;
  Entries& operator=(const Entries&) = delete;

  dirent* const* begin() const { return m_list; }
  dirent* const* end() const { return m_list + std::max(m_count, 0); }

 private:
  dirent** m_list = nullptr;
  int m_count = 0;
};

// Of the entry itself: false for a link to a directory, which is never followed.
bool IsDirectory(const dirent& entry) { return entry.d_type == DT_DIR; }

std::string WithSlash(std::string directory) {
  if (directory.empty() || directory.back() != '/') directory += '/';
  return directory;
}

bool HasDirectory(const std::string& directory, const char* name) {
  const Entries entries(directory, LogBusiness::FilterDot);
  return std::any_of(entries.begin(), entries.end(), [name](const dirent* entry) {
    return IsDirectory(*entry) && std::strcmp(entry->d_name, name) == 0;
  });
}

void RemoveFiles(const std::string& directory, int (*filter)(const dirent*)) {
  for (const dirent* entry : Entries(directory, filter)) {
    if (IsDirectory(*entry)) continue;
    (void)PRAX_Remove((directory + entry->d_name).c_str());  // what cannot be removed stays
  }
}

void RemoveKeyInfo(const std::string& directory) {
  if (!HasDirectory(directory, kKeyInfoDirectory)) return;
  for (const char* file : kKeyInfoFiles) {
    (void)PRAX_Remove((directory + kKeyInfoDirectory + "/" + file).c_str());
  }
}

// The moment `days` ago, as local time has it.
std::time_t DaysAgo(std::uint64_t days) {
  const std::uint64_t now = PRAX_GetSystemTime() / kMsPerSecond;
  const std::uint64_t kept = std::min(days, now / kSecondsPerDay) * kSecondsPerDay;
  const auto moment = static_cast<std::time_t>(now - kept);
  std::tm local{};
  return localtime_r(&moment, &local) != nullptr ? std::mktime(&local) : moment;
}

void* RunCleanUp(void* argument) {
  const std::unique_ptr<std::string> directory(static_cast<std::string*>(argument));
  (void)PRAX_PthreadSetName(kThreadName);
  AtBoundary([&] { LogBusiness::DoDeleteTask(std::move(*directory), true); });
  return nullptr;
}

// False when there is no thread to be had.
bool StartCleanUp(const std::string& directory) {
  auto argument = std::make_unique<std::string>(directory);
  PRAX_THREAD thread = 0;
  if (PRAX_PthreadCreate(&thread, nullptr, RunCleanUp, argument.get()) != 0) return false;
  (void)argument.release();  // the thread's now
  (void)PRAX_PthreadDetach(thread);
  return true;
}

}  // namespace

int FilterOldVersionLogFun(const dirent* entry) {
  const bool begins = std::any_of(
      std::begin(kOldLogPrefixes), std::end(kOldLogPrefixes),
      [entry](const char* p) { return std::strncmp(entry->d_name, p, std::strlen(p)) == 0; });
  return begins && std::strstr(entry->d_name, kOldLogMark) != nullptr ? 1 : 0;
}

void LogBusiness::DoAsyncDelete(BizType type) {
  std::string directory;
  std::uint64_t days = 0;
  {
    MutexLock hold(m_lock);
    directory = logDirPath;
    days = logKeepDays;
  }
  if (days == 0 || PRAX_IsDir(directory.c_str()) == 0) return;
  if (isRun.exchange(true)) return;
  ScopeGuard notStarted([] { isRun = false; });
  const std::uint64_t keptDays = std::clamp(days, kFewestDays, kMostDays);
  {
    MutexLock hold(m_lock);
    if (logKeepDays == days) logKeepDays = keptDays;  // not what was set meanwhile
  }
  ZEL_LOG(kInfo) << "DoAsyncDelete begin------------------------- ";
  delFileCount = 0;
  baseTime = DaysAgo(keptDays);
  {
    MutexLock hold(m_lock);
    typeDesc = type == kAfterLogin ? kAfterLoginDesc : kAfterConferenceDesc;
  }
  if (StartCleanUp(directory)) notStarted.Dismiss();
}

bool LogBusiness::IsCleaning() { return isRun; }

int LogBusiness::DeletedFiles() { return delFileCount; }

void LogBusiness::DeleteOldVersionLogFiles(const char* dir) {
  if (dir == nullptr || *dir == '\0') return;
  const std::string directory = WithSlash(dir);
  RemoveFiles(directory, FilterOldVersionLogFun);
  RemoveKeyInfo(directory);
  if (HasDirectory(directory, kRtcDirectory)) {
    DeleteAllFileInThePath(directory + kRtcDirectory + "/");
  }
}

std::time_t LogBusiness::InitBaseTime() {
  std::uint64_t days = 0;
  {
    MutexLock hold(m_lock);
    days = logKeepDays;
  }
  return DaysAgo(days);
}

void LogBusiness::DoDeleteTask(std::string directory, bool isTopLevel) {
  const ScopeGuard ended([isTopLevel] {
    if (isTopLevel) isRun = false;
  });
  const Entries entries(directory, FilterDot);
  directory = WithSlash(std::move(directory));
  for (const dirent* entry : entries) {
    if (IsDirectory(*entry)) {
      DoDeleteTask(directory + entry->d_name, false);
    } else {
      (void)DealWithFile(directory + entry->d_name);
    }
  }
  if (!isTopLevel) return;
  UTEvent();
  ZEL_LOG(kInfo) << "DoAsyncDelete end------------------------- ";
}

int LogBusiness::FilterDot(const dirent* entry) {
  if (entry == nullptr) return 0;
  const char* const name = entry->d_name;
  return std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0 ? 1 : 0;
}

int LogBusiness::DealWithFile(const std::string& path) {
  PRAX_STAT status{};
  const int found = PRAX_Stat(path.c_str(), &status);
  if (found != 0 || status.st_mtime >= baseTime) return found;
  const int removed = PRAX_Remove(path.c_str());
  if (removed == 0) ++delFileCount;
  return removed;
}

void LogBusiness::DeleteAllFileInThePath(const std::string& dir) {
  if (dir.empty()) return;  // not the root directory
  RemoveFiles(WithSlash(dir), FilterDot);
  (void)PRAX_RmDir(dir.c_str());  // stays when a directory is left in it
}

void LogBusiness::UTEvent() {
  Json::Value event(Json::objectValue);
  {
    MutexLock hold(m_lock);
    event[kTypeKey] = typeDesc;
    event[kPathKey] = PublicUtil::filterWordGeneral(logDirPath);
    event[kDaysKey] = Json::UInt64(logKeepDays);
  }
  event[kFilesKey] = delFileCount.load();
  const std::string text = PublicUtil::Json2String(event);
  const UTEventRecord record = {kEventId, kEventName, nullptr, nullptr, text.c_str(), 0};
  (void)Track_AddUserTrack(&record);  // analytics only
}

}  // namespace commonutil
