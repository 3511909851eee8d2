#include "zel_platform/track.h"

#include <stdarg.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <string>

#include "config/settings.h"
#include "logger/FormatText.h"
#include "track/UserTrack.h"
#include "track/track_ref.h"
#include "zel_platform/logger.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr char kLogModule[] = "native_sdk";
constexpr int kCommandWorker = 4;
constexpr std::size_t kCategories = 16;      // the last one takes every number beyond
constexpr unsigned long kIndexBytes = 1024;  // what is looked at of an index

std::atomic<int> g_startResult{kOk};  // written by the test seam
std::array<std::atomic<std::uint64_t>, kCategories> g_messages{};

std::atomic<std::uint64_t>& MessageCounter(int category) {
  const auto index = static_cast<std::size_t>(category);
  return g_messages[category >= 0 && index < kCategories ? index : kCategories - 1];
}

// Tracking never disturbs its caller: what finds no memory is dropped.
template <class Body>
int Safely(int withoutMemory, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return withoutMemory;
  }
}

// One line "[category] text"; without a category just the text.
void WriteLog(const char* module, int level, const char* function, const char* category,
              const std::string& text) {
  LogStream line = LogStream::GetLogStream(module, level, 0, "", function, 0);
  if (category != nullptr) line << "[" << category << "] ";
  line << text;
}

TrackOutput OutputOf(int level, int sizeKb, int oldFiles, const char* directory) {
  TrackOutput output = {level, sizeKb, oldFiles, directory == nullptr ? "" : directory};
  if (!output.directory.empty() && output.directory.back() != '/') output.directory += '/';
  return output;
}

TrackFields FieldsOf(const UTEventRecord& event) {
  TrackFields fields;
  fields.Text(TrackField::kEventId, event.eventId)
      .Text(TrackField::kArg1, event.arg1)
      .Text(TrackField::kArg2, event.arg2)
      .Text(TrackField::kArg3, event.arg3)
      .Text(TrackField::kArgs, event.args)
      .Number(TrackField::kParam, event.param);
  return fields;
}

std::string IndexOf(const char* index, unsigned long length) {
  if (index == nullptr) return {};
  return std::string(index, ::strnlen(index, std::min(length, kIndexBytes)));
}

// Adds the arrays of the context in the order of the fields.
class ContextFields {
 public:
  template <std::size_t N>
  ContextFields& Add(const char (&text)[N]) {
    m_fields.Text(TrackField::kContext + m_count++, text, N);
    return *this;
  }
  const TrackFields& Fields() const { return m_fields; }

 private:
  TrackFields m_fields;
  std::size_t m_count = 0;
};

}  // namespace

int InitUnifiedTrack(int logLevel, int logSize, int fileCount, const char* logPath,
                     const char* dbPath) {
  return Safely(kFailed, [&] {
    const std::string directory = dbPath == nullptr ? "" : dbPath;
    orb_config_set_directory(directory);
    if (const int scripted = g_startResult.load(); scripted != kOk) return scripted;
    return UserTrack::Instance().Start(OutputOf(logLevel, logSize, fileCount, logPath), directory);
  });
}

int Track_Uninit(void) {
  return Safely(kOk, [] {
    UserTrack::Instance().Stop();
    return kOk;
  });
}

int Track_UpdateLogPath(int logLevel, int logSize, int fileCount, const char* path) {
  return Safely(kFailed, [&] {
    return UserTrack::Instance().Move(OutputOf(logLevel, logSize, fileCount, path));
  });
}

int Track_AddUserTrack(const UTEventRecord* record) {
  if (record == nullptr) return kFailed;
  return Safely(
      kOk, [&] { return UserTrack::Instance().Add(TrackKind::kUserTrack, FieldsOf(*record)); });
}

int Track_StartEvent(const char* index, unsigned long length) {
  return Safely(kOk, [&] { return UserTrack::Instance().StartTimed(IndexOf(index, length)); });
}

int Track_FinishEvent(const char* index, const UTEventRecord* record, unsigned long length) {
  if (record == nullptr) return kFailed;
  return Safely(kOk, [&] {
    return UserTrack::Instance().FinishTimed(IndexOf(index, length), FieldsOf(*record));
  });
}

// The sub-event's layout is not known to this library: only that there was one is kept.
int Track_AddSubEvent(const char* index, const UTSubEventRecord* record, unsigned long length) {
  if (record == nullptr) return kFailed;
  return Safely(kOk, [&] {
    return UserTrack::Instance().AddToTimed(IndexOf(index, length), record->subEvent != nullptr);
  });
}

int Track_AddMediaTrack(const UTEventRecord* record, bool flag) {
  if (record == nullptr) return kFailed;
  return Safely(kOk, [&] {
    TrackFields fields = FieldsOf(*record);
    fields.Number(TrackField::kFlag, flag ? 1 : 0);
    return UserTrack::Instance().Add(TrackKind::kMediaTrack, fields);
  });
}

int Track_UploadUserTrack(void) {
  return Safely(kOk, [] {
    UserTrack::Instance().RequestUpload();
    return kOk;
  });
}

// The record's size is not known here: only its first integer is read.
int Track_ConfigCustomParam(int first, const void* /*param*/) {
  return Safely(kOk, [&] {
    UserTrack::Instance().SetUploadSwitch(first);
    return kOk;
  });
}

int Track_ConfigTanloContextPublicParam(const UTContextRecord* record) {
  if (record == nullptr) return kFailed;
  return Safely(kOk, [&] {
    ContextFields context;
    context.Add(record->version).Add(record->deviceId).Add(record->brand).Add(record->deviceModel);
    context.Add(record->cpu).Add(record->resolution).Add(record->appId).Add(record->language);
    context.Add(record->osName).Add(record->osVersion).Add(record->carrier).Add(record->access);
    context.Add(record->accessSubtype);
    UserTrack::Instance().SetContext(context.Fields());
    return kOk;
  });
}

int Track_ConfigPublicSdkParam(const UTPublicSdkRecord* record) {
  if (record == nullptr) return kFailed;
  return Safely(kOk, [&] {
    TrackFields fields;
    for (std::size_t i = 0; i < std::size(record->text); ++i) {
      fields.Text(TrackField::kSdk + i, record->text[i]);
    }
    return UserTrack::Instance().SetSdk(fields);
  });
}

int MediaTrack_AddDataConfDotData(unsigned int id, const char* data, bool flag) {
  return Safely(kOk, [&] {
    TrackFields fields;
    fields.Text(TrackField::kData, data)
        .Number(TrackField::kId, id)
        .Number(TrackField::kFlag, flag ? 1 : 0);
    return UserTrack::Instance().Add(TrackKind::kConferenceData, fields);
  });
}

int MediaTrack_SetCpuAndMemoryInfo(const UTCpuMemoryRecord* record) {
  if (record == nullptr) return kFailed;
  return Safely(kOk, [&] {
    TrackFields fields;
    fields.Text(TrackField::kText, record->text, sizeof(record->text));
    for (std::size_t i = 0; i < std::size(record->values); ++i) {
      fields.Number(TrackField::kValue0 + i, record->values[i]);
    }
    return UserTrack::Instance().Add(TrackKind::kCpuAndMemory, fields);
  });
}

void Track_MsgDotCount(int category) {
  MessageCounter(category).fetch_add(1, std::memory_order_relaxed);
  if (category != kCommandWorker) return;
  (void)Safely(kOk, [] {  // there is no result to pass on
    UserTrack::Instance().State().CommandEnded();
    return kOk;
  });
}

// The error function may itself come back here, so it is never called from here.
void Track_ErrorAnalyze(const char* type, const char* text) {
  (void)Safely(kOk, [&] {  // there is no result to pass on
    TrackFields fields;
    fields.Text(TrackField::kType, type).Text(TrackField::kText, text);
    return UserTrack::Instance().Add(TrackKind::kErrorAnalyze, fields);
  });
}

void Track_AddTraceApiLog(int a, int b, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  (void)Safely(kOk, [&] {  // there is no result to pass on
    const std::string text = FormatText(fmt, arguments);
    WriteLog(kLogModule, LOGGER_LEVEL_INFO, "Track_AddTraceApiLog", nullptr, text);
    TrackFields fields;
    fields.Text(TrackField::kText, text.c_str())
        .Number(TrackField::kFirst, a)
        .Number(TrackField::kSecond, b);
    return UserTrack::Instance().Add(TrackKind::kTraceApiLog, fields);
  });
  va_end(arguments);
}

void SetErrTrackCallback(void (*onError)(const char* text)) {
  UserTrack::Instance().SetErrorFunction(onError);
}

void setAddCacheFun(int (*batchAdd)(const void* entries, int count),
                    int (*query)(const char* key, void* out, int* count)) {
  UserTrack::Instance().State().Register({batchAdd, query});
}

void IntelligentAnalyseDoStubToLog(const char* module, const char* category, int level,
                                   const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  (void)Safely(kOk, [&] {  // there is no result to pass on
    WriteLog(module, level, function, category, FormatText(fmt, arguments));
    return kOk;
  });
  va_end(arguments);
}

std::uint64_t track_ref_messages(int category) { return MessageCounter(category).load(); }

TrackCallbacks track_ref_callbacks() {
  const TrackCacheFunctions functions = UserTrack::Instance().State().Registered();
  return {functions.batchAdd, functions.query, UserTrack::Instance().ErrorFunction()};
}

void track_ref_set_init_result(int result) { g_startResult.store(result); }

void track_ref_reset() {
  UserTrack::Instance().Reset();
  g_startResult.store(kOk);
  for (std::atomic<std::uint64_t>& counter : g_messages) counter = 0;
}
