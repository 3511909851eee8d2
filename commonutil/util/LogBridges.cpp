#include "util/LogBridges.h"

#include "util/Log.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/PublicUtil";
constexpr char kFrequencyModule[] = "native_sdk_frequency";
constexpr char kTimerModule[] = "zel_timer";
constexpr char kOsAdapterModule[] = "zel_osadapter";  // opened by that library itself
constexpr char kTimerError[] = "timer_error";
constexpr char kLogError[] = "log_error";

// The two numbers under which the tracking library files web-socket texts.
constexpr int kTraceApi = 0;
constexpr int kTraceWebSocket = 7;

void WriteFrequency(const char* text) {
  ::LogStream::GetLogStream(kFrequencyModule, kInfo, kCheckPlain, kLogFile, "TimerDotLog", __LINE__)
      << text;
}

// A line of the other library's own log, without a place in this one.
void WriteForeign(const char* module, const char* text) {
  ::LogStream::GetLogStream(module, kInfo, kCheckPlain, "", "", 0) << text;
}

}  // namespace

void SupportCommonLog(const char* text) { ZEL_LOG_DATA(kInfo) << text; }

void TimerDotLog(_PRAX_E_TimerLogLv level, const char* text) {
  switch (level) {
    case PRAX_TIMER_LOG_ERROR:
      Track_ErrorAnalyze(kTimerError, text);
      WriteFrequency(text);
      break;
    case PRAX_TIMER_LOG_1:
    case PRAX_TIMER_LOG_2:
      WriteFrequency(text);
      break;
    case PRAX_TIMER_LOG_3:
      WriteForeign(kTimerModule, text);
      break;
  }
}

void OsAdapaterDotLog(_PRAX_OS_LOG_LEVEL level, const char* text) {
  switch (level) {
    case PRAX_OS_LOG_0:
      WriteForeign(kOsAdapterModule, text);
      break;
    case PRAX_OS_LOG_1:
      ZEL_LOG(kInfo) << text;
      break;
    case PRAX_OS_LOG_2:
      ZEL_LOG(kWarning) << text;
      break;
    case PRAX_OS_LOG_3:
      ZEL_LOG(kError) << text;
      break;
  }
}

void WebSocketCommonLog(const char* text) {
  Track_AddTraceApiLog(kTraceApi, kTraceWebSocket, "%s", text);
}

void LogDotLog(const char* text) { Track_ErrorAnalyze(kLogError, text); }

}  // namespace commonutil
