// What this build of the tracking library does: it keeps the latest records in memory,
// counts the calls, and between InitUnifiedTrack and Track_Uninit appends each event as
// one JSON line to "ut_events.jsonl" in the log directory, rotated like a log file and
// masked like one. Context and configuration records stay in memory only. Nothing is
// uploaded, and the registered functions are stored but never called.
#include "zel_platform/track.h"

#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>

#include <json/json.h>

#include "config/settings.h"
#include "logger/FormatText.h"
#include "logger/LogFile.h"
#include "logger/LogModules.h"
#include "logger/SensitiveWords.h"
#include "track/track_ref.h"
#include "zel_platform/logger.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr char kLogModule[] = "native_sdk";
constexpr char kLogFileName[] = "native_sdk.txt";
constexpr char kEventFileName[] = "ut_events.jsonl";
constexpr mode_t kLogDirectoryMode = 0750;
constexpr std::size_t kKeptRecords = 1000;
constexpr std::size_t kKeptBytes = 1024 * 1024;
constexpr std::size_t kCategories = 16;  // the last one takes every number beyond

using OptionalText = std::optional<std::string>;

enum class RecordKind {
  kEvent,          // also goes to the event file
  kConfiguration,  // may describe the user: memory only
};

struct OutputSettings {
  int level;
  int sizeKb;
  int oldFiles;
  std::string directory;  // ends in "/"
};

OptionalText Copied(const char* text) {
  return text == nullptr ? OptionalText() : OptionalText(text);
}

OptionalText Copied(const char* text, unsigned long length) {
  return text == nullptr ? OptionalText()
                         : OptionalText(std::string(text, ::strnlen(text, length)));
}

template <std::size_t N>
OptionalText CopiedArray(const char (&text)[N]) {
  return Copied(text, N);
}

std::string Masked(const std::string& text) {
  std::string masked;
  SensitiveWords::Instance().AppendMasked(text, SensitiveWords::Controls::kKeep, &masked);
  return masked;
}

// The texts are masked one by one, since JSON escaping would disguise a word.
std::string JsonLine(const TrackRecord& record, std::int64_t nowMs) {
  Json::Value line(Json::objectValue);
  line["timeMs"] = static_cast<Json::Int64>(nowMs);
  line["function"] = record.function;
  for (const auto& [name, text] : record.texts) {
    line[name] = text.has_value() ? Json::Value(Masked(*text)) : Json::Value();
  }
  for (const auto& [name, number] : record.numbers) line[name] = static_cast<Json::Int64>(number);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, line) + "\n";
}

std::size_t BytesOf(const TrackRecord& record) {
  std::size_t bytes = sizeof(record);
  for (const auto& entry : record.texts) {
    bytes += sizeof(entry) + (entry.second.has_value() ? entry.second->size() : 0);
  }
  return bytes;
}

class UserTrack {
 public:
  static UserTrack& Instance();

  int Start(const OutputSettings& settings);
  int Move(const OutputSettings& settings);
  void Stop();
  void Add(TrackRecord record, RecordKind kind);
  void Count(const std::string& function);

  std::vector<TrackRecord> Records() const;
  std::uint64_t Calls(const std::string& function) const;
  void SetStartResult(int result);
  void Reset();

 private:
  bool OpenModuleLog(const OutputSettings& settings);
  bool OpenEventFile(const OutputSettings& settings);
  void KeepLocked(TrackRecord record);

  std::atomic<bool> m_running{false};   // written by Start, Stop and Reset
  std::atomic<int> m_startResult{kOk};  // written by the test seam
  mutable std::mutex m_lock;          // never held while another library is called; guards the rest
  std::unique_ptr<LogFile> m_events;  // null unless running with a usable directory
  std::string m_moduleLogPath;        // what this library opened the module log with
  std::deque<TrackRecord> m_records;
  std::size_t m_recordBytes = 0;
  std::map<std::string, std::uint64_t> m_calls;
};

UserTrack& UserTrack::Instance() {
  static UserTrack& instance = *new UserTrack;
  return instance;
}

int UserTrack::Start(const OutputSettings& settings) {
  const int scripted = m_startResult.load();
  if (scripted != kOk) return scripted;
  m_running.store(true);
  return Move(settings);
}

int UserTrack::Move(const OutputSettings& settings) {
  if (!m_running.load()) return kOk;
  if (settings.directory.empty()) return kFailed;
  (void)::mkdir(settings.directory.c_str(), kLogDirectoryMode);  // the opening below tells
  const bool logUsable = OpenModuleLog(settings);
  const bool eventsUsable = OpenEventFile(settings);
  return logUsable && eventsUsable ? kOk : kFailed;
}

void UserTrack::Stop() {
  std::unique_ptr<LogFile> events;  // closed after the lock
  const std::lock_guard<std::mutex> held(m_lock);
  m_running.store(false);
  events.swap(m_events);
}

// A log that somebody else has opened stays where it is; one of ours follows the directory.
bool UserTrack::OpenModuleLog(const OutputSettings& settings) {
  const std::string path = settings.directory + kLogFileName;
  const std::string openPath = LogModules::Instance().FindForOpening(kLogModule).OpenPath();
  {
    const std::lock_guard<std::mutex> held(m_lock);
    if (!openPath.empty() && openPath != m_moduleLogPath) return true;
    m_moduleLogPath = path;
  }
  return LogStream::InitLog(kLogModule, path.c_str(), settings.sizeKb, settings.oldFiles,
                            settings.level) == 0;
}

// Without a usable directory the events stay where they went so far.
bool UserTrack::OpenEventFile(const OutputSettings& settings) {
  auto events = std::make_unique<LogFile>(settings.directory + kEventFileName, settings.sizeKb,
                                          settings.oldFiles);
  if (!events->Open()) return false;
  const std::lock_guard<std::mutex> held(m_lock);
  if (m_running.load()) m_events.swap(events);
  return true;
}

void UserTrack::Add(TrackRecord record, RecordKind kind) {
  const std::int64_t nowMs = LogClockMs();
  std::string line;
  if (kind == RecordKind::kEvent && m_running.load()) line = JsonLine(record, nowMs);
  const std::lock_guard<std::mutex> held(m_lock);
  ++m_calls[record.function];
  // An event that the disk refuses stays in memory only.
  if (!line.empty() && m_events != nullptr) (void)m_events->Append(line, nowMs);
  KeepLocked(std::move(record));
}

void UserTrack::KeepLocked(TrackRecord record) {
  m_recordBytes += BytesOf(record);
  m_records.push_back(std::move(record));
  while (m_records.size() > kKeptRecords || m_recordBytes > kKeptBytes) {
    m_recordBytes -= BytesOf(m_records.front());
    m_records.pop_front();
  }
}

void UserTrack::Count(const std::string& function) {
  const std::lock_guard<std::mutex> held(m_lock);
  ++m_calls[function];
}

std::vector<TrackRecord> UserTrack::Records() const {
  const std::lock_guard<std::mutex> held(m_lock);
  return {m_records.begin(), m_records.end()};
}

std::uint64_t UserTrack::Calls(const std::string& function) const {
  const std::lock_guard<std::mutex> held(m_lock);
  const auto found = m_calls.find(function);
  return found == m_calls.end() ? 0 : found->second;
}

void UserTrack::SetStartResult(int result) { m_startResult.store(result); }

void UserTrack::Reset() {
  Stop();
  m_startResult.store(kOk);
  const std::lock_guard<std::mutex> held(m_lock);
  m_moduleLogPath.clear();
  m_records.clear();
  m_recordBytes = 0;
  m_calls.clear();
}

// The functions that others registered and the counters of the command worker's hot path.
struct Registered {
  std::atomic<int (*)(const void*, int)> batchAdd{nullptr};
  std::atomic<int (*)(const char*, void*, int*)> query{nullptr};
  std::atomic<void (*)(const char*)> onError{nullptr};
};
Registered g_registered;
std::array<std::atomic<std::uint64_t>, kCategories> g_messages{};

std::atomic<std::uint64_t>& MessageCounter(int category) {
  const auto index = static_cast<std::size_t>(category);
  return g_messages[category >= 0 && index < kCategories ? index : kCategories - 1];
}

// Keeps what `copy` returns. Tracking never disturbs its caller: a record that finds no
// memory is dropped.
template <class Copy>
int Keep(RecordKind kind, Copy&& copy) noexcept try {
  UserTrack::Instance().Add(copy(), kind);
  return kOk;
} catch (...) {
  return kOk;
}

// One line "[category] text"; without a category just the text.
__attribute__((format(printf, 5, 0))) void WriteLog(const char* module, int level,
                                                    const char* function, const char* category,
                                                    const char* fmt, va_list arguments) {
  try {
    const std::string text = FormatText(fmt, arguments);
    LogStream line = LogStream::GetLogStream(module, level, 0, "", function, 0);
    if (category != nullptr) line << "[" << category << "] ";
    line << text;
  } catch (...) {  // no memory for the text: no line
  }
}

OutputSettings SettingsOf(int level, int sizeKb, int oldFiles, const char* directory) {
  OutputSettings settings{level, sizeKb, oldFiles, directory == nullptr ? "" : directory};
  if (!settings.directory.empty() && settings.directory.back() != '/') settings.directory += '/';
  return settings;
}

TrackRecord EventCopy(const char* function, const UTEventRecord& event) {
  return {function,
          {{"eventId", Copied(event.eventId)},
           {"arg1", Copied(event.arg1)},
           {"arg2", Copied(event.arg2)},
           {"arg3", Copied(event.arg3)},
           {"args", Copied(event.args)}},
          {{"param", event.param}}};
}

TrackRecord ContextCopy(const UTContextRecord& context) {
  return {"Track_ConfigTanloContextPublicParam",
          {{"version", CopiedArray(context.version)},
           {"deviceId", CopiedArray(context.deviceId)},
           {"brand", CopiedArray(context.brand)},
           {"deviceModel", CopiedArray(context.deviceModel)},
           {"cpu", CopiedArray(context.cpu)},
           {"resolution", CopiedArray(context.resolution)},
           {"appId", CopiedArray(context.appId)},
           {"language", CopiedArray(context.language)},
           {"osName", CopiedArray(context.osName)},
           {"osVersion", CopiedArray(context.osVersion)},
           {"carrier", CopiedArray(context.carrier)},
           {"access", CopiedArray(context.access)},
           {"accessSubtype", CopiedArray(context.accessSubtype)}},
          {}};
}

}  // namespace

int InitUnifiedTrack(int logLevel, int logSize, int fileCount, const char* logPath,
                     const char* dbPath) {
  try {
    orb_config_set_directory(dbPath == nullptr ? "" : dbPath);
    return UserTrack::Instance().Start(SettingsOf(logLevel, logSize, fileCount, logPath));
  } catch (...) {  // no memory
    return kFailed;
  }
}

int Track_Uninit(void) {
  UserTrack::Instance().Stop();
  return kOk;
}

int Track_UpdateLogPath(int logLevel, int logSize, int fileCount, const char* path) {
  try {
    return UserTrack::Instance().Move(SettingsOf(logLevel, logSize, fileCount, path));
  } catch (...) {  // no memory
    return kFailed;
  }
}

int Track_AddUserTrack(const UTEventRecord* record) {
  if (record == nullptr) return kFailed;
  return Keep(RecordKind::kEvent, [&] { return EventCopy("Track_AddUserTrack", *record); });
}

int Track_StartEvent(const char* index, unsigned long length) {
  return Keep(RecordKind::kEvent, [&] {
    return TrackRecord{"Track_StartEvent", {{"index", Copied(index, length)}}, {}};
  });
}

int Track_FinishEvent(const char* index, const UTEventRecord* record, unsigned long length) {
  if (record == nullptr) return kFailed;
  return Keep(RecordKind::kEvent, [&] {
    TrackRecord copy = EventCopy("Track_FinishEvent", *record);
    copy.texts.emplace_back("index", Copied(index, length));
    return copy;
  });
}

// The sub-event's layout is not known to this build: only that there was one is kept.
int Track_AddSubEvent(const char* index, const UTSubEventRecord* record, unsigned long length) {
  if (record == nullptr) return kFailed;
  return Keep(RecordKind::kEvent, [&] {
    return TrackRecord{"Track_AddSubEvent",
                       {{"index", Copied(index, length)}},
                       {{"hasSubEvent", record->subEvent != nullptr}}};
  });
}

int Track_AddMediaTrack(const UTEventRecord* record, bool flag) {
  if (record == nullptr) return kFailed;
  return Keep(RecordKind::kEvent, [&] {
    TrackRecord copy = EventCopy("Track_AddMediaTrack", *record);
    copy.numbers.emplace_back("flag", flag);
    return copy;
  });
}

int Track_UploadUserTrack(void) {
  try {
    UserTrack::Instance().Count("Track_UploadUserTrack");
  } catch (...) {  // no memory for the counter
  }
  return kOk;
}

// The record's size is not known here: only its first integer is kept.
int Track_ConfigCustomParam(int first, const void* param) {
  return Keep(RecordKind::kConfiguration, [&] {
    return TrackRecord{
        "Track_ConfigCustomParam", {}, {{"first", first}, {"hasParam", param != nullptr}}};
  });
}

int Track_ConfigTanloContextPublicParam(const UTContextRecord* record) {
  if (record == nullptr) return kFailed;
  return Keep(RecordKind::kConfiguration, [&] { return ContextCopy(*record); });
}

int Track_ConfigPublicSdkParam(const UTPublicSdkRecord* record) {
  if (record == nullptr) return kFailed;
  return Keep(RecordKind::kConfiguration, [&] {
    TrackRecord copy{"Track_ConfigPublicSdkParam", {}, {}};
    for (const char* text : record->text) {
      copy.texts.emplace_back("text" + std::to_string(copy.texts.size()), Copied(text));
    }
    return copy;
  });
}

int MediaTrack_AddDataConfDotData(unsigned int id, const char* data, bool flag) {
  return Keep(RecordKind::kEvent, [&] {
    return TrackRecord{
        "MediaTrack_AddDataConfDotData", {{"data", Copied(data)}}, {{"id", id}, {"flag", flag}}};
  });
}

int MediaTrack_SetCpuAndMemoryInfo(const UTCpuMemoryRecord* record) {
  if (record == nullptr) return kFailed;
  return Keep(RecordKind::kEvent, [&] {
    TrackRecord copy{"MediaTrack_SetCpuAndMemoryInfo", {{"text", CopiedArray(record->text)}}, {}};
    for (const std::int32_t value : record->values) {
      copy.numbers.emplace_back("value" + std::to_string(copy.numbers.size()), value);
    }
    return copy;
  });
}

void Track_MsgDotCount(int category) {
  MessageCounter(category).fetch_add(1, std::memory_order_relaxed);
}

// The error function may itself come back here, so it is never called from here.
void Track_ErrorAnalyze(const char* type, const char* text) {
  (void)Keep(RecordKind::kEvent, [&] {  // there is no result to pass on
    return TrackRecord{"Track_ErrorAnalyze", {{"type", Copied(type)}, {"text", Copied(text)}}, {}};
  });
}

void Track_AddTraceApiLog(int /*a*/, int /*b*/, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  WriteLog(kLogModule, LOGGER_LEVEL_INFO, "Track_AddTraceApiLog", nullptr, fmt, arguments);
  va_end(arguments);
}

void SetErrTrackCallback(void (*onError)(const char* text)) { g_registered.onError = onError; }

void setAddCacheFun(int (*batchAdd)(const void* entries, int count),
                    int (*query)(const char* key, void* out, int* count)) {
  g_registered.batchAdd = batchAdd;
  g_registered.query = query;
}

void IntelligentAnalyseDoStubToLog(const char* module, const char* category, int level,
                                   const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  WriteLog(module, level, function, category, fmt, arguments);
  va_end(arguments);
}

const std::string* TrackRecord::Text(const std::string& name) const {
  for (const auto& [textName, text] : texts) {
    if (textName == name) return text.has_value() ? &*text : nullptr;
  }
  return nullptr;
}

std::vector<TrackRecord> track_ref_records() { return UserTrack::Instance().Records(); }

std::uint64_t track_ref_calls(const std::string& function) {
  return UserTrack::Instance().Calls(function);
}

std::uint64_t track_ref_messages(int category) { return MessageCounter(category).load(); }

TrackCallbacks track_ref_callbacks() {
  return {g_registered.batchAdd, g_registered.query, g_registered.onError};
}

void track_ref_set_init_result(int result) { UserTrack::Instance().SetStartResult(result); }

void track_ref_reset() {
  UserTrack::Instance().Reset();
  setAddCacheFun(nullptr, nullptr);
  SetErrTrackCallback(nullptr);
  for (std::atomic<std::uint64_t>& counter : g_messages) counter = 0;
}
