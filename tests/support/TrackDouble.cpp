#include <cstdarg>
#include <mutex>
#include <utility>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "zel_platform/track.h"

namespace {

using support::Locked;
using support::TrackCall;

typedef int (*BatchAdd)(const void* entries, int count);
typedef int (*Query)(const char* key, void* out, int* count);

struct TrackRecords {
  std::vector<TrackCall> calls;
  int initResult = 0;
  int result = 0;
  BatchAdd batchAdd = nullptr;
  Query query = nullptr;
};

int Keep(TrackCall&& call) {
  const Locked<TrackRecords> records;
  records->calls.push_back(std::move(call));
  return records->result;
}

template <class... Arguments>
int Note(const char* function, Arguments... arguments) {
  TrackCall call{function, {}, {}};
  support::AddTo(call, arguments...);
  return Keep(std::move(call));
}

void AddEvent(TrackCall& call, const UTEventRecord* record) {
  if (!record) return;
  support::AddTo(call, record->eventId, record->arg1, record->arg2, record->arg3, record->args,
                 record->param);
}

// The first `length` bytes of `index`, as the library that receives them reads it.
std::string IndexText(const char* index, unsigned long length) {
  return index ? std::string(index, length) : support::TextOrNull(nullptr);
}

}  // namespace

int InitUnifiedTrack(int logLevel, int logSize, int fileCount, const char* logPath,
                     const char* dbPath) {
  (void)Note(__func__, logPath, dbPath, logLevel, logSize, fileCount);
  return Locked<TrackRecords>()->initResult;
}

int Track_Uninit(void) { return Note(__func__); }

int Track_UpdateLogPath(int logLevel, int logSize, int fileCount, const char* path) {
  return Note(__func__, path, logLevel, logSize, fileCount);
}

int Track_AddUserTrack(const UTEventRecord* record) {
  TrackCall call{__func__, {}, {}};
  AddEvent(call, record);
  return Keep(std::move(call));
}

int Track_StartEvent(const char* index, unsigned long length) {
  return Note(__func__, IndexText(index, length), length);
}

int Track_FinishEvent(const char* index, const UTEventRecord* record, unsigned long length) {
  TrackCall call{__func__, {IndexText(index, length)}, {static_cast<long long>(length)}};
  AddEvent(call, record);
  return Keep(std::move(call));
}

int Track_AddSubEvent(const char* index, const UTSubEventRecord* record, unsigned long length) {
  return Note(__func__, IndexText(index, length), length, record && record->subEvent);
}

int Track_AddMediaTrack(const UTEventRecord* record, bool flag) {
  TrackCall call{__func__, {}, {}};
  AddEvent(call, record);
  call.numbers.push_back(flag);
  return Keep(std::move(call));
}

int Track_UploadUserTrack(void) { return Note(__func__); }

int Track_ConfigCustomParam(int first, const void* param) { return Note(__func__, first, param); }

int Track_ConfigTanloContextPublicParam(const UTContextRecord* record) {
  if (!record) return Note(__func__);
  const UTContextRecord& r = *record;
  return Note(__func__, r.version, r.deviceId, r.brand, r.deviceModel, r.cpu, r.resolution, r.appId,
              r.language, r.osName, r.osVersion, r.carrier, r.access, r.accessSubtype);
}

int Track_ConfigPublicSdkParam(const UTPublicSdkRecord* record) {
  TrackCall call{__func__, {}, {}};
  if (record) {
    for (const char* text : record->text) support::AddTo(call, text);
  }
  return Keep(std::move(call));
}

int MediaTrack_AddDataConfDotData(unsigned int id, const char* data, bool flag) {
  return Note(__func__, data, id, flag);
}

int MediaTrack_SetCpuAndMemoryInfo(const UTCpuMemoryRecord* record) {
  TrackCall call{__func__, {}, {}};
  if (record) {
    call.texts = {record->text};
    call.numbers.assign(std::begin(record->values), std::end(record->values));
  }
  return Keep(std::move(call));
}

void Track_MsgDotCount(int category) { (void)Note(__func__, category); }

void Track_ErrorAnalyze(const char* type, const char* text) { (void)Note(__func__, type, text); }

void Track_AddTraceApiLog(int a, int b, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  (void)Note(__func__, support::FormatText(fmt, arguments), a, b);
  va_end(arguments);
}

void SetErrTrackCallback(void (*onError)(const char* text)) { (void)Note(__func__, onError); }

void setAddCacheFun(BatchAdd batchAdd, Query query) {
  (void)Note(__func__, batchAdd, query);
  const Locked<TrackRecords> records;
  records->batchAdd = batchAdd;
  records->query = query;
}

void IntelligentAnalyseDoStubToLog(const char* module, const char* category, int level,
                                   const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  (void)Note(__func__, module, category, function, support::FormatText(fmt, arguments), level);
  va_end(arguments);
}

namespace support {

void ClearTrack() { Locked<TrackRecords>()->calls.clear(); }
std::vector<TrackCall> TrackCalls() { return Locked<TrackRecords>()->calls; }

int CountTrack(const std::string& function) {
  const Locked<TrackRecords> records;
  int count = 0;
  for (const TrackCall& call : records->calls) count += call.function == function;
  return count;
}
void SetInitUnifiedTrackResult(int result) { Locked<TrackRecords>()->initResult = result; }
void SetTrackResult(int result) { Locked<TrackRecords>()->result = result; }

int CallCacheBatchAdd(const void* entries, int count) {
  const BatchAdd batchAdd = Locked<TrackRecords>()->batchAdd;
  return batchAdd ? batchAdd(entries, count) : -1;
}

int CallCacheQuery(const char* key, void* out, int* count) {
  const Query query = Locked<TrackRecords>()->query;
  return query ? query(key, out, count) : -1;
}
void ResetTrack() { *Locked<TrackRecords>() = {}; }

}  // namespace support
