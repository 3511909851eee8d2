#include "track/UserTrack.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include "config/settings.h"
#include "logger/LogFile.h"
#include "logger/LogModules.h"
#include "prax/owner_access.h"
#include "track/OtlpTransport.h"
#include "zel_platform/crypto.h"
#include "zel_platform/logger.h"
#include "zorm/zorm_file.h"
#include "zorm/zorm_started.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr char kLogModule[] = "native_sdk";
constexpr char kLogFileName[] = "native_sdk.txt";
constexpr char kEventFileName[] = "ut_events.jsonl";
constexpr char kSpoolDirectory[] = "track/";
constexpr char kKeyName[] = "key";
constexpr mode_t kLogDirectoryMode = 0750;

constexpr std::size_t kWaitingRecords = 1000;
constexpr std::size_t kWaitingBytes = std::size_t{1024} * 1024;
constexpr std::size_t kTimedEvents = 256;
constexpr std::size_t kLongestIndex = 256;
constexpr std::chrono::milliseconds kExitPatience(2000);

constexpr char kEndpointSetting[] = "track.endpoint";
constexpr char kEndpointVariable[] = "OTEL_EXPORTER_OTLP_ENDPOINT";
constexpr int kCollectorIntervalMs = 60000;
constexpr int kFileIntervalMs = 20;
constexpr int kMaxKb = 10240;
constexpr int kLeastKb = 2048;  // the longest record has room
constexpr int kMaxEvents = 100000;
constexpr int kMaxDays = 7;
constexpr std::uint64_t kBytesPerKb = 1024;
constexpr std::int64_t kMsPerDay = std::int64_t{24} * 3600 * 1000;

// Key management runs for a moment only: what fails once, for want of a descriptor say, is tried
// again at once.
constexpr int kOpenAttempts = 2;

constexpr char kDroppedEvent[] = "track_dropped";
constexpr char kSessionEvent[] = "track_session";

void LogProblem(const char* text) {
  LogStream::GetLogStream(kLogModule, LOGGER_LEVEL_ERROR, 0, "platform/track/UserTrack",
                          "LogProblem", __LINE__)
      << text;
}

std::int64_t SteadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// A setting below 1 is no setting.
int PositiveSetting(const char* path, int defaultValue) {
  const int value = orb_config_int(path, defaultValue);
  return value > 0 ? value : defaultValue;
}

TrackLimits LimitSettings() {
  TrackLimits limits;
  limits.bytes = std::max(PositiveSetting("track.maxKb", kMaxKb), kLeastKb) * kBytesPerKb;
  limits.records = static_cast<std::uint64_t>(PositiveSetting("track.maxEvents", kMaxEvents));
  limits.ageMs = PositiveSetting("track.maxDays", kMaxDays) * kMsPerDay;
  limits.fileBytes = std::min(limits.fileBytes, std::max<std::uint64_t>(limits.bytes / 8, 1));
  return limits;
}

std::string EndpointSetting() {
  std::string endpoint = orb_config_text(kEndpointSetting, "");
  if (!endpoint.empty()) return endpoint;
  const char* const variable = ::getenv(kEndpointVariable);
  return variable == nullptr ? "" : variable;
}

std::string WithSlash(std::string directory) {
  if (!directory.empty() && directory.back() != '/') directory += '/';
  return directory;
}

}  // namespace

// Holds m_lock, and logs what went wrong under it once it is free again.
class UserTrack::Locked {
 public:
  explicit Locked(UserTrack& track) : m_track(track), m_hold(track.m_lock) {}
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
  ~Locked() {
    const char* const problem = std::exchange(m_track.m_problem, nullptr);
    m_hold.unlock();
    if (problem != nullptr) LogProblem(problem);
  }

 private:
  UserTrack& m_track;
  std::unique_lock<std::mutex> m_hold;
};

UserTrack& UserTrack::Instance() {
  static UserTrack& instance = *new UserTrack;
  return instance;
}

UserTrack::UserTrack()
    : m_state(&UserTrack::CurrentMark, &UserTrack::OnPreviousMark),
      m_eventFile(std::make_shared<FileTransport>()) {}

int UserTrack::Start(const TrackOutput& output, const std::string& databaseDirectory) {
  {
    const std::lock_guard<std::mutex> control(m_controlLock);
    const std::lock_guard<std::mutex> hold(m_lock);
    if (!m_running) {
      m_spoolDirectory =
          databaseDirectory.empty() ? "" : WithSlash(databaseDirectory) + kSpoolDirectory;
      m_running = true;
      m_sequence = 0;
      m_timed.clear();
      (void)ORB_CPYPT_RealRandom(m_session.data(), static_cast<unsigned int>(m_session.size()));
      m_state.Start();
    }
  }
  orb_zorm_on_started(&UserTrack::OnKeyManagementStarted);  // whatever becomes of the rest
  const int moved = Move(output);
  const bool usable = !databaseDirectory.empty() &&
                      PrepareDirectoryOf(WithSlash(databaseDirectory) + kSpoolDirectory) == 0;
  OpenSpool();  // where the key is known from an earlier start
  return usable ? moved : kFailed;
}

int UserTrack::Move(const TrackOutput& output) {
  const std::lock_guard<std::mutex> control(m_controlLock);
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    if (!m_running) return kOk;
  }
  if (output.directory.empty()) return kFailed;
  (void)MakeOwnDirectory(output.directory.c_str(), kLogDirectoryMode);  // the uses below tell
  const bool logUsable = OpenModuleLog(output);
  const bool eventsUsable = UseEventFile(output);
  return logUsable && eventsUsable ? kOk : kFailed;
}

// A log that somebody else has opened stays where it is; one of ours follows the directory.
bool UserTrack::OpenModuleLog(const TrackOutput& output) {
  const std::string path = output.directory + kLogFileName;
  const std::string openPath = LogModules::Instance().FindForOpening(kLogModule).OpenPath();
  if (!openPath.empty() && openPath != m_moduleLogPath) return true;
  m_moduleLogPath = path;
  return LogStream::InitLog(kLogModule, path.c_str(), output.sizeKb, output.oldFiles,
                            output.level) == 0;
}

// Without a usable directory the events stay where they went so far. The file itself is made by
// its first event.
bool UserTrack::UseEventFile(const TrackOutput& output) {
  if (::access(output.directory.c_str(), W_OK | X_OK) != 0) return false;
  m_eventFile->Use(
      std::make_unique<LogFile>(output.directory + kEventFileName, output.sizeKb, output.oldFiles));
  return true;
}

void UserTrack::Stop() {
  std::shared_ptr<TrackUploader> uploader;
  {
    const std::lock_guard<std::mutex> control(m_controlLock);
    const std::lock_guard<std::mutex> hold(m_lock);
    m_running = false;
    m_timed.clear();
    uploader.swap(m_uploader);
    m_spool.reset();
    m_state.Stop();
  }
  if (uploader != nullptr) (void)uploader->Stop(kExitPatience);  // what is left stays on disk
}

void UserTrack::RequestUpload() {
  const std::lock_guard<std::mutex> hold(m_lock);
  if (m_uploader != nullptr) m_uploader->Request();
}

UserTrack::Sender UserTrack::MakeSender() const {
  Sender sender;
  const std::string endpoint = EndpointSetting();
  int interval = kFileIntervalMs;
  sender.transport = m_eventFile;
  if (OtlpTransport::Takes(endpoint)) {
    sender.transport = std::make_shared<OtlpTransport>(endpoint);
    interval = kCollectorIntervalMs;
  } else if (!endpoint.empty()) {
    LogProblem("track: the endpoint is no http or https address; events go to a file");
  }
  sender.options.interval =
      std::chrono::milliseconds(PositiveSetting("track.intervalMs", interval));
  sender.options.onProblem = &UserTrack::OnUploadProblem;
  return sender;
}

void UserTrack::OnKeyManagementStarted() {
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    try {
      Instance().OpenSpool();
    } catch (...) {  // no memory
    }
  }
}

// Without a thread the events are stored, and sent by a later process.
std::shared_ptr<TrackUploader> UserTrack::StartUploader(const std::shared_ptr<TrackSpool>& spool) {
  const Sender sender = MakeSender();
  try {
    return std::make_shared<TrackUploader>(spool, sender.transport, sender.options);
  } catch (const std::system_error&) {
    LogProblem("track: no thread can be started; events are kept and not sent");
    return nullptr;
  }
}

// Does nothing while there is a spool, or no key for one.
void UserTrack::OpenSpool() {
  const std::lock_guard<std::mutex> control(m_controlLock);
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    if (!m_running || m_spool != nullptr || m_spoolDirectory.empty()) return;
  }
  const std::shared_ptr<TrackSpool> spool = MakeSpool(m_spoolDirectory);
  if (spool == nullptr) return;
  const auto uploader = StartUploader(spool);
  const Locked hold(*this);
  m_spool = spool;
  m_uploader = uploader;
  if (m_uploadSwitch == 0) m_spool->Purge();
  (void)StoreWaitingLocked(LogClockMs());  // what fails goes on waiting
  if (m_uploader != nullptr) m_uploader->EventAdded(m_spool->Pending() > 0 ? 1 : 0);
  ReportDroppedLocked();
}

std::shared_ptr<TrackSpool> UserTrack::MakeSpool(const std::string& directory) {
  if (PrepareDirectoryOf(directory) != 0) return nullptr;
  bool isNew = false;
  if (!LoadKey(directory, &isNew)) return nullptr;
  auto spool = m_lastSpool.lock();
  if (spool != nullptr && m_lastSpoolDirectory == directory) return spool;
  spool = std::make_shared<TrackSpool>(directory, m_key, LimitSettings());
  if (!spool->Open(LogClockMs())) {
    LogProblem("track: the spool is in use or cannot be read; events stay in memory");
    return nullptr;
  }
  if (isNew) spool->DropAll();
  m_lastSpool = spool;
  m_lastSpoolDirectory = directory;
  return spool;
}

bool UserTrack::LoadKey(const std::string& directory, bool* isNew) {
  if (m_keyDirectory == directory) return true;
  const TrackKeyResult result = LoadTrackKey(directory + kKeyName, &m_key);
  if (result == TrackKeyResult::kUnavailable) return false;
  *isNew = result == TrackKeyResult::kNew;
  m_keyDirectory = directory;
  return true;
}

int UserTrack::DropLocked(const char* problem) {
  m_problem = problem;
  return kFailed;
}

int UserTrack::Add(TrackKind kind, const TrackFields& fields) {
  const Locked hold(*this);
  return Runs() ? AddLocked(kind, fields) : kOk;
}

int UserTrack::AddLocked(TrackKind kind, const TrackFields& fields) {
  if (fields.TooLong()) return DropLocked("track: an event that is too long was dropped");
  const std::int64_t nowMs = LogClockMs();
  m_record.clear();
  AppendTrackHead({kind, nowMs, ++m_sequence, m_session}, &m_record);
  m_record += fields.Bytes();
  m_record += m_custom;
  m_record += m_context;
  m_record += m_sdk;
  if (!StoreLocked(m_record, nowMs)) WaitInMemoryLocked(m_record);
  if (kind != TrackKind::kLibrary) ReportDroppedLocked();
  return kOk;
}

// The order of the events is kept: what waits goes first.
bool UserTrack::StoreLocked(std::string_view record, std::int64_t nowMs) {
  if (m_spool == nullptr || !StoreWaitingLocked(nowMs)) return false;
  return AppendLocked(record, nowMs);
}

bool UserTrack::AppendLocked(std::string_view record, std::int64_t nowMs) {
  std::uint64_t pending = 0;
  const bool appended = m_spool->Append(record, nowMs, &pending);
  if (appended) {
    if (m_uploader != nullptr) m_uploader->EventAdded(pending);
  } else if (!m_spoolFails) {
    m_problem = "track: the spool cannot be written; events wait in memory";
  }
  m_spoolFails = !appended;
  return appended;
}

bool UserTrack::StoreWaitingLocked(std::int64_t nowMs) {
  while (!m_waiting.empty()) {
    if (!AppendLocked(m_waiting.front(), nowMs)) return false;
    m_waitingBytes -= m_waiting.front().size();
    m_waiting.pop_front();
  }
  return true;
}

void UserTrack::WaitInMemoryLocked(std::string record) {
  m_waitingBytes += record.size();
  m_waiting.push_back(std::move(record));
  while (m_waiting.size() > kWaitingRecords || m_waitingBytes > kWaitingBytes) {
    m_waitingBytes -= m_waiting.front().size();
    m_waiting.pop_front();
    ++m_dropped;
  }
}

// The report may itself cost a file of the spool; the next one tells of that.
void UserTrack::ReportDroppedLocked() {
  if (m_spool == nullptr || !Runs()) return;
  const std::uint64_t dropped = m_spool->TakeDropped() + std::exchange(m_dropped, 0);
  if (dropped == 0) return;
  TrackFields fields;
  fields.Text(TrackField::kEventId, kDroppedEvent)
      .Number(TrackField::kDropped, static_cast<std::int64_t>(dropped));
  (void)AddLocked(TrackKind::kLibrary, fields);
}

int UserTrack::StartTimed(const std::string& index) {
  const Locked hold(*this);
  if (!Runs()) return kOk;
  if (index.empty() || index.size() > kLongestIndex) {
    return DropLocked("track: an index without text or too long was not started");
  }
  const Timed timed = {LogClockMs(), SteadyMs()};
  if (const auto found = m_timed.find(index); found != m_timed.end()) {
    m_problem = "track: an index was started again, its first start was dropped";
    found->second = timed;
    return kOk;
  }
  if (m_timed.size() >= kTimedEvents) {
    return DropLocked("track: too many events are under way, one was not started");
  }
  m_timed.emplace(index, timed);
  return kOk;
}

int UserTrack::FinishTimed(const std::string& index, TrackFields fields) {
  const Locked hold(*this);
  if (!Runs()) return kOk;
  const auto found = m_timed.find(index);
  if (found == m_timed.end()) {
    return DropLocked("track: the end of an event that is not under way was dropped");
  }
  fields.Text(TrackField::kIndex, index.c_str())
      .Number(TrackField::kStartTimeMs, found->second.startMs)
      .Number(TrackField::kDurationMs, SteadyMs() - found->second.steadyMs)
      .Number(TrackField::kSubEvents, found->second.subEvents);
  m_timed.erase(found);
  return AddLocked(TrackKind::kFinishEvent, fields);
}

int UserTrack::AddToTimed(const std::string& index, bool hasSubEvent) {
  const Locked hold(*this);
  if (!Runs()) return kOk;
  const auto found = m_timed.find(index);
  if (found == m_timed.end()) {
    return DropLocked("track: a sub-event of an event that is not under way was dropped");
  }
  TrackFields fields;
  fields.Text(TrackField::kIndex, index.c_str())
      .Number(TrackField::kSubEvents, ++found->second.subEvents)
      .Number(TrackField::kHasSubEvent, hasSubEvent ? 1 : 0);
  return AddLocked(TrackKind::kSubEvent, fields);
}

// Without consent nothing of what is stored may stay.
void UserTrack::SetUploadSwitch(int value) {
  TrackFields fields;
  fields.Number(TrackField::kUploadSwitch, value);
  const std::lock_guard<std::mutex> hold(m_lock);
  m_uploadSwitch = value;
  m_custom = fields.Bytes();
  if (value != 0) return;
  m_timed.clear();
  m_waiting.clear();
  m_waitingBytes = 0;
  m_dropped = 0;
  if (m_spool != nullptr) m_spool->Purge();
}

void UserTrack::SetContext(const TrackFields& fields) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_context = fields.Bytes();
}

int UserTrack::SetSdk(const TrackFields& fields) {
  const Locked hold(*this);
  if (fields.TooLong()) return DropLocked("track: SDK parameters that are too long were dropped");
  m_sdk = fields.Bytes();
  return kOk;
}

// The host's function may come back as an event, which waits for the next upload.
void UserTrack::OnUploadProblem(const std::string& text) {
  LogProblem(text.c_str());
  if (const auto onError = Instance().m_onError.load()) onError(text.c_str());
}

TrackMark UserTrack::CurrentMark() {
  UserTrack& self = Instance();
  const std::lock_guard<std::mutex> hold(self.m_lock);
  return {TrackSessionText(self.m_session), self.m_sequence};
}

// Lets the receiver of the events see whether he has all of the session before.
void UserTrack::OnPreviousMark(const TrackMark& mark) {
  TrackFields fields;
  fields.Text(TrackField::kEventId, kSessionEvent)
      .Text(TrackField::kPreviousSession, mark.session.c_str())
      .Number(TrackField::kPreviousSequence, static_cast<std::int64_t>(mark.sequence));
  (void)Instance().Add(TrackKind::kLibrary, fields);  // short enough
}

void UserTrack::Reset() {
  Stop();
  SetErrorFunction(nullptr);
  m_state.Register({});
  orb_zorm_on_started(nullptr);
  const std::lock_guard<std::mutex> control(m_controlLock);
  m_moduleLogPath.clear();
  m_keyDirectory.clear();
  m_eventFile = std::make_shared<FileTransport>();
  const std::lock_guard<std::mutex> hold(m_lock);
  m_uploadSwitch = 1;
  m_context.clear();
  m_sdk.clear();
  m_custom.clear();
  m_waiting.clear();
  m_waitingBytes = 0;
  m_dropped = 0;
  m_spoolFails = false;
}
