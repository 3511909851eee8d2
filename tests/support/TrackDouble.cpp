#include <cstdarg>
#include <mutex>
#include <utility>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "zel_platform/track.h"

namespace {

using support::TextOrNull;
using support::TrackCall;

typedef int (*BatchAdd)(const void* entries, int count);
typedef int (*Query)(const char* key, void* out, int* count);

struct TrackRecords {
  std::mutex lock;
  std::vector<TrackCall> calls;
  int initResult = 0;
  int result = 0;
  BatchAdd batchAdd = nullptr;
  Query query = nullptr;
};

TrackRecords& Records() {
  static TrackRecords* const instance = new TrackRecords;
  return *instance;
}

int Record(TrackCall&& call) {
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  records.calls.push_back(std::move(call));
  return records.result;
}

void AddEvent(TrackCall& call, const UTEventRecord* record) {
  if (!record) return;
  for (const char* text :
       {record->eventId, record->arg1, record->arg2, record->arg3, record->args}) {
    call.texts.push_back(TextOrNull(text));
  }
  call.numbers.push_back(record->param);
}

// The first `length` bytes of `index`, as the library that receives them reads it.
std::string IndexText(const char* index, unsigned long length) {
  return index ? std::string(index, length) : TextOrNull(nullptr);
}

}  // namespace

int InitUnifiedTrack(int logLevel, int logSize, int fileCount, const char* logPath,
                     const char* dbPath) {
  (void)Record({"InitUnifiedTrack",
                {TextOrNull(logPath), TextOrNull(dbPath)},
                {logLevel, logSize, fileCount}});
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  return records.initResult;
}

int Track_Uninit(void) { return Record({"Track_Uninit", {}, {}}); }

int Track_UpdateLogPath(int logLevel, int logSize, int fileCount, const char* path) {
  return Record({"Track_UpdateLogPath", {TextOrNull(path)}, {logLevel, logSize, fileCount}});
}

int Track_AddUserTrack(const UTEventRecord* record) {
  TrackCall call{"Track_AddUserTrack", {}, {}};
  AddEvent(call, record);
  return Record(std::move(call));
}

int Track_StartEvent(const char* index, unsigned long length) {
  return Record({"Track_StartEvent", {IndexText(index, length)}, {static_cast<long long>(length)}});
}

int Track_FinishEvent(const char* index, const UTEventRecord* record, unsigned long length) {
  TrackCall call{"Track_FinishEvent", {IndexText(index, length)}, {static_cast<long long>(length)}};
  AddEvent(call, record);
  return Record(std::move(call));
}

int Track_AddSubEvent(const char* index, const UTSubEventRecord* record, unsigned long length) {
  const bool hasSubEvent = record && record->subEvent;
  return Record({"Track_AddSubEvent",
                 {IndexText(index, length)},
                 {static_cast<long long>(length), hasSubEvent}});
}

int Track_AddMediaTrack(const UTEventRecord* record, bool flag) {
  TrackCall call{"Track_AddMediaTrack", {}, {}};
  AddEvent(call, record);
  call.numbers.push_back(flag);
  return Record(std::move(call));
}

int Track_UploadUserTrack(void) { return Record({"Track_UploadUserTrack", {}, {}}); }

int Track_ConfigCustomParam(int first, const void* param) {
  return Record({"Track_ConfigCustomParam", {}, {first, param != nullptr}});
}

int Track_ConfigTanloContextPublicParam(const UTContextRecord* record) {
  TrackCall call{"Track_ConfigTanloContextPublicParam", {}, {}};
  if (record) {
    call.texts = {record->version,      record->deviceId,   record->brand,   record->deviceModel,
                  record->cpu,          record->resolution, record->appId,   record->language,
                  record->osName,       record->osVersion,  record->carrier, record->access,
                  record->accessSubtype};
  }
  return Record(std::move(call));
}

int Track_ConfigPublicSdkParam(const UTPublicSdkRecord* record) {
  TrackCall call{"Track_ConfigPublicSdkParam", {}, {}};
  if (record) {
    for (const char* text : record->text) call.texts.push_back(TextOrNull(text));
  }
  return Record(std::move(call));
}

int MediaTrack_AddDataConfDotData(unsigned int id, const char* data, bool flag) {
  return Record({"MediaTrack_AddDataConfDotData", {TextOrNull(data)}, {id, flag}});
}

int MediaTrack_SetCpuAndMemoryInfo(const UTCpuMemoryRecord* record) {
  TrackCall call{"MediaTrack_SetCpuAndMemoryInfo", {}, {}};
  if (record) {
    call.texts = {record->text};
    call.numbers.assign(std::begin(record->values), std::end(record->values));
  }
  return Record(std::move(call));
}

void Track_MsgDotCount(int category) { (void)Record({"Track_MsgDotCount", {}, {category}}); }

void Track_ErrorAnalyze(const char* type, const char* text) {
  (void)Record({"Track_ErrorAnalyze", {TextOrNull(type), TextOrNull(text)}, {}});
}

void Track_AddTraceApiLog(int a, int b, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  (void)Record({"Track_AddTraceApiLog", {support::FormatText(fmt, arguments)}, {a, b}});
  va_end(arguments);
}

void SetErrTrackCallback(void (*onError)(const char* text)) {
  (void)Record({"SetErrTrackCallback", {}, {onError != nullptr}});
}

void setAddCacheFun(BatchAdd batchAdd, Query query) {
  (void)Record({"setAddCacheFun", {}, {batchAdd != nullptr, query != nullptr}});
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  records.batchAdd = batchAdd;
  records.query = query;
}

void IntelligentAnalyseDoStubToLog(const char* module, const char* category, int level,
                                   const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  (void)Record({"IntelligentAnalyseDoStubToLog",
                {TextOrNull(module), TextOrNull(category), TextOrNull(function),
                 support::FormatText(fmt, arguments)},
                {level}});
  va_end(arguments);
}

namespace support {

void ClearTrack() {
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  records.calls.clear();
}

std::vector<TrackCall> TrackCalls() {
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  return records.calls;
}

int CountTrack(const std::string& function) {
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  int count = 0;
  for (const TrackCall& call : records.calls) count += call.function == function;
  return count;
}

void SetInitUnifiedTrackResult(int result) {
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  records.initResult = result;
}

void SetTrackResult(int result) {
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  records.result = result;
}

int CallCacheBatchAdd(const void* entries, int count) {
  TrackRecords& records = Records();
  BatchAdd batchAdd = nullptr;
  {
    std::lock_guard<std::mutex> hold(records.lock);
    batchAdd = records.batchAdd;
  }
  return batchAdd ? batchAdd(entries, count) : -1;
}

int CallCacheQuery(const char* key, void* out, int* count) {
  TrackRecords& records = Records();
  Query query = nullptr;
  {
    std::lock_guard<std::mutex> hold(records.lock);
    query = records.query;
  }
  return query ? query(key, out, count) : -1;
}

void ResetTrack() {
  TrackRecords& records = Records();
  std::lock_guard<std::mutex> hold(records.lock);
  records.calls.clear();
  records.initResult = 0;
  records.result = 0;
  records.batchAdd = nullptr;
  records.query = nullptr;
}

}  // namespace support
