#include <cstdarg>
#include <mutex>
#include <utility>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "logger/FormatText.h"
#include "zel_platform/track.h"

namespace {

using support::Locked;
using support::PlatformCall;

typedef int (*BatchAdd)(const void* entries, int count);
typedef int (*Query)(const char* key, void* out, int* count);

struct TrackRecords {
  std::vector<PlatformCall> calls;
  int initResult = 0;
  int result = 0;
  BatchAdd batchAdd = nullptr;
  Query query = nullptr;
};

template <class... Arguments>
int Note(const char* function, const Arguments&... arguments) {
  return support::NoteIn<TrackRecords>(function, arguments...);
}

}  // namespace

namespace support {

void Add(PlatformCall& call, const UTEventRecord* record) {
  for (const char* text :
       {record->eventId, record->arg1, record->arg2, record->arg3, record->args}) {
    Add(call, text);
  }
  Add(call, record->param);
}

}  // namespace support

int InitUnifiedTrack(int logLevel, int logSize, int fileCount, const char* logPath,
                     const char* dbPath) {
  (void)Note(__func__, logPath, dbPath, logLevel, logSize, fileCount);
  return Locked<TrackRecords>()->initResult;
}
int Track_Uninit(void) { return Note(__func__); }
int Track_UpdateLogPath(int logLevel, int logSize, int fileCount, const char* path) {
  return Note(__func__, path, logLevel, logSize, fileCount);
}
int Track_AddUserTrack(const UTEventRecord* record) { return Note(__func__, record); }
int Track_StartEvent(const char* index, unsigned long length) {
  return Note(__func__, std::string(index, length), length);
}
int Track_FinishEvent(const char* index, const UTEventRecord* record, unsigned long length) {
  return Note(__func__, std::string(index, length), length, record);
}
int Track_AddSubEvent(const char* index, const UTSubEventRecord* record, unsigned long length) {
  return Note(__func__, std::string(index, length), length, record->subEvent);
}
int Track_AddMediaTrack(const UTEventRecord* record, bool flag) {
  return Note(__func__, record, flag);
}
int Track_UploadUserTrack(void) { return Note(__func__); }
int Track_ConfigCustomParam(int first, const void* param) { return Note(__func__, first, param); }

int Track_ConfigTanloContextPublicParam(const UTContextRecord* record) {
  const UTContextRecord& r = *record;
  return Note(__func__, r.version, r.deviceId, r.brand, r.deviceModel, r.cpu, r.resolution, r.appId,
              r.language, r.osName, r.osVersion, r.carrier, r.access, r.accessSubtype);
}

int Track_ConfigPublicSdkParam(const UTPublicSdkRecord* record) {
  const auto& t = record->text;
  return Note(__func__, t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8], t[9]);
}
int MediaTrack_AddDataConfDotData(unsigned int id, const char* data, bool flag) {
  return Note(__func__, data, id, flag);
}
int MediaTrack_SetCpuAndMemoryInfo(const UTCpuMemoryRecord* record) {
  return Note(__func__, record->text, record->values[0], record->values[1], record->values[2]);
}
void Track_MsgDotCount(int category) { (void)Note(__func__, category); }
void Track_ErrorAnalyze(const char* type, const char* text) { (void)Note(__func__, type, text); }

void Track_AddTraceApiLog(int a, int b, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  (void)Note(__func__, FormatText(fmt, arguments), a, b);
  va_end(arguments);
}

void SetErrTrackCallback(void (*onError)(const char* text)) { (void)Note(__func__, onError); }

void setAddCacheFun(BatchAdd batchAdd, Query query) {
  const Locked<TrackRecords> records;
  records->batchAdd = batchAdd;
  records->query = query;
}

void IntelligentAnalyseDoStubToLog(const char* module, const char* category, int level,
                                   const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  (void)Note(__func__, module, category, function, FormatText(fmt, arguments), level);
  va_end(arguments);
}

namespace support {

void ClearTrack() { Locked<TrackRecords>()->calls.clear(); }
std::vector<PlatformCall> TrackCalls() { return Locked<TrackRecords>()->calls; }
int CountTrack(const std::string& function) { return CountOf(function, TrackCalls()); }
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
