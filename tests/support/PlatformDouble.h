// What the unit tests see of the platform double: every log line is recorded, key management
// follows a script, tracking and network calls are recorded. Operating-system faults are set
// through platform/prax/prax_ref.h. All functions may be called from any thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

struct ORB_HTTP_REQUEST;

namespace support {

struct LogLine {
  std::string module;
  int level;
  int checkLevel;
  std::string file;
  std::string function;
  std::string text;  // as written, before any masking
};

void ClearLog();
std::vector<LogLine> LogLines();
std::vector<std::string> LogTexts();
// Lines whose text is exactly `text`; a `level` of -1 takes any.
int CountLog(const std::string& text, int level = -1);
// Lines whose text begins with `prefix`.
int CountLogPrefix(const std::string& prefix, int level = -1);
// Registered since the last ClearLog, in order.
std::vector<std::string> SensitiveWords();

// "close <module>" and "open <module> <file> <size in KB> <old files> <level>", as above.
std::vector<std::string> LogModules();

// Each store path has its own key, kept in this process while the store lasts: a start that
// returns kZormStoreDamaged loses it. No file is made.
struct ZormScript {
  std::deque<int> startCodes;  // returned by the next starts; 0, or an ordinary start, when empty
  std::deque<int> stopCodes;
  int encryptCode = 0;  // returned by every encryption when non-zero
};
// Also ends a running service and forgets the calls.
void SetZormScript(const ZormScript& script);
// "start <log>|<store>|<backup>", "stop", "encrypt", "decrypt", in order.
std::vector<std::string> ZormCalls();

// Texts and numbers in the order of the arguments and of the record's fields.
struct PlatformCall {
  std::string function;
  std::vector<std::string> texts;  // a null text is "(null)"
  std::vector<long long> numbers;
};
using TrackCall = PlatformCall;
void ClearTrack();
std::vector<TrackCall> TrackCalls();
int CountTrack(const std::string& function);
void SetInitUnifiedTrackResult(int result);
// Returned by every other function of tracking that returns a result.
void SetTrackResult(int result);
// Calls what setAddCacheFun registered, as the tracking library would; -1 without one.
int CallCacheBatchAdd(const void* entries, int count);
int CallCacheQuery(const char* key, void* out, int* count);

struct NetScript {
  int result = 0;                      // returned by every function but the exchange
  std::vector<std::string> detectIps;  // of GetNetDetectIps, which fails while this is empty
};
void SetNetScript(const NetScript& script);
// Answers each exchange, on the exchange's thread and with no lock held; an empty function: each is
// answered with 200.
void SetHttpExchange(std::function<int(ORB_HTTP_REQUEST&)> exchange);
// Since the last ResetPlatformDouble. Secrets are recorded as they came.
std::vector<PlatformCall> NetCalls();
int CountNet(const std::string& function);
void SetIntegerSetting(int number, int value);

// Everything above and every fault of the operating system back to its start.
void ResetPlatformDouble();

}  // namespace support
