// One statement, one log line:
//
//   constexpr char kLogFile[] = "commonutil/util/MsgMgr";   // once per source
//   ZEL_LOG(kError) << "DB not init";
//
// The line is written at the end of the statement. A null text prints nothing. Never log
// while holding a lock that the logger's caller could need (the locks for which this differs say
// so where they are declared).
#pragma once

#include "zel_platform/logger.h"

namespace commonutil {

constexpr char kLogModule[] = "native_sdk";

enum LogLevel : int {
  kError = LOGGER_LEVEL_ERROR,
  kWarning = LOGGER_LEVEL_WARNING,
  kInfo = LOGGER_LEVEL_INFO
};

// What a line carries beside its level.
enum LogCheckLevel : int {
  kCheckPlain = 0,
  kCheckData = 1,       // user or network data
  kCheckMilestone = 2,  // start and stop of the database and of key management
};

}  // namespace commonutil

#define ZEL_LOG_CHECKED(level, checkLevel)                                                       \
  ::LogStream::GetLogStream(::commonutil::kLogModule, (level), (checkLevel), kLogFile, __func__, \
                            __LINE__)
#define ZEL_LOG(level) ZEL_LOG_CHECKED(::commonutil::level, ::commonutil::kCheckPlain)
#define ZEL_LOG_DATA(level) ZEL_LOG_CHECKED(::commonutil::level, ::commonutil::kCheckData)
#define ZEL_LOG_MILESTONE(level) ZEL_LOG_CHECKED(::commonutil::level, ::commonutil::kCheckMilestone)
