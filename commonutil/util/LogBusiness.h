// Where the library and the platform libraries beneath it write their logs, and the clean-up of
// old log files in the background.
//
// All functions are static and may be called from any thread. The library itself calls none of
// them: the SDK's other libraries do. Nothing reports an error; what cannot be made, opened or
// removed is passed over.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>

#include "publicInc/ZelExport.h"
#include "util/Mutex.h"
#include "zel_platform/logger.h"

struct dirent;

namespace commonutil {

// Static functions only.
class ZEL_API LogBusiness {
 public:
  // The moment of a client's life at which a clean-up runs. Every value but the first counts as
  // the end of a conference.
  enum BizType : int { kAfterLogin = 0, kAfterConference = 1 };

  // --- Log set-up ------------------------------------------------------------

  // Opens the files of the logging modules anew and routes the platform libraries' own
  // diagnostics into them, unless `path` is the one in force. File names are `path` followed
  // directly by the module's name, so it is to end in "/". The level counts for the side modules:
  // "native_sdk" always writes up to info. An empty path is stored and changes nothing else.
  static void SetLogPath(std::string path, tagLoggerLevel level);
  // The path last set; empty at the start.
  static std::string GetLogPath();
  // The directory `name` inside the log directory, with a "/" at its end; made, mode 0755, when
  // it cannot be opened. One level only.
  static std::string GenerateLogPath(std::string name);
  // 3 for errors, 4 for warnings, 5 for everything else. The spelling is part of the interface.
  static int GetDnsLogLeveFromLogger(tagLoggerLevel level);

  // --- Clean-up --------------------------------------------------------------

  // What a clean-up works on: the directory, and how many days of files it keeps. 0 days: no
  // clean-up. Checks nothing.
  static void InitConfig(std::string directory, unsigned long days);
  // Starts a clean-up on a thread of its own and returns. It removes every file of the directory
  // and of all directories in it that was last written before the kept days (fewer than 3 count
  // as 3, more than 30 as 30, which is stored), whatever its name, and reports to the tracking
  // library. Directories stay; a link is never followed, though removed as a file when what it
  // points to is old. While a clean-up runs the call does nothing.
  static void DoAsyncDelete(BizType type);
  // Whether a clean-up runs.
  static bool IsCleaning();
  // Files that the running clean-up, or else the last one, has removed.
  static int DeletedFiles();
  // Removes what earlier versions of the client left in `dir`: their logs, their key information
  // and the directory "rtc" when it holds files only. Null and "" do nothing.
  static void DeleteOldVersionLogFiles(const char* dir);

  // --- The parts of a clean-up -------------------------------------------------

  // Now less the kept days.
  static std::time_t InitBaseTime();
  // Cleans one directory and those in it. At the top level also reports and ends the clean-up.
  static void DoDeleteTask(std::string directory, bool isTopLevel);
  // 1 for every name except "." and "..", else 0.
  static int FilterDot(const dirent* entry);
  // Removes the file if it is older than the running clean-up keeps, and counts it. Returns the
  // platform's result of the last thing done.
  static int DealWithFile(const std::string& path);
  // Removes the files of `dir`, and `dir` itself when nothing is left in it.
  static void DeleteAllFileInThePath(const std::string& dir);
  // Tells the tracking library about the clean-up.
  static void UTEvent();

 private:
  // Never destroyed: a clean-up may outlive the exit's destructors. Held for a copy only.
  ZEL_LOCAL static Mutex& m_lock;
  ZEL_LOCAL static std::string& trueLogPath ZEL_GUARDED_BY(m_lock);
  ZEL_LOCAL static std::string& logDirPath ZEL_GUARDED_BY(m_lock);
  ZEL_LOCAL static std::uint64_t logKeepDays ZEL_GUARDED_BY(m_lock);
  ZEL_LOCAL static std::string& typeDesc ZEL_GUARDED_BY(m_lock);
  // Set by the caller that starts a clean-up, cleared last of all by its thread.
  ZEL_LOCAL static std::atomic<bool> isRun;
  // Written before the clean-up's thread starts, the count then by that thread.
  ZEL_LOCAL static std::atomic<std::time_t> baseTime;
  ZEL_LOCAL static std::atomic<int> delFileCount;
};

}  // namespace commonutil
