#include "zel_platform/track.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "logger/logger_ref.h"
#include "support/TempDir.h"
#include "track/track_ref.h"
#include "zel_platform/logger.h"
#include "zel_platform/zorm.h"
#include "zorm/zorm_ref.h"

namespace {

constexpr std::chrono::seconds kDeadline(60);  // only a hang takes that long

// The library behind the cache functions: one row, and calls that may be made to hang.
struct CacheRow {
  std::int32_t autoId;
  std::string key, value;
};
struct Cache {
  std::mutex lock;
  std::condition_variable changed;
  std::string value;
  int queries = 0;
  int adds = 0;
  bool hangs = false;

  void Reset() {
    value.clear();
    queries = adds = 0;
  }
  void WaitForAdds(int count) {
    std::unique_lock<std::mutex> hold(lock);
    EXPECT_TRUE(changed.wait_for(hold, kDeadline, [&] { return adds >= count; }));
  }
};
Cache& TheCache() {
  static Cache& cache = *new Cache;
  return cache;
}

int KeepRow(const void* entries, int count) {
  Cache& cache = TheCache();
  std::unique_lock<std::mutex> hold(cache.lock);
  EXPECT_EQ(count, 1);
  cache.value = static_cast<const CacheRow*>(entries)->value;
  ++cache.adds;
  cache.changed.notify_all();
  cache.changed.wait(hold, [&] { return !cache.hangs; });
  return 0;
}

int FindRow(const char* key, void* out, int* count) {
  Cache& cache = TheCache();
  const std::lock_guard<std::mutex> hold(cache.lock);
  ++cache.queries;
  *count = cache.value.empty() ? 0 : 1;
  if (*count == 1) *static_cast<CacheRow*>(out) = {1, key, cache.value};
  return *count == 1 ? 0 : 1;
}

UTEventRecord Event(const char* args) { return {"1", "event", nullptr, nullptr, args, 5}; }

int AddText(const char* args) {
  const UTEventRecord event = Event(args);
  return Track_AddUserTrack(&event);
}

int CountIn(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

class TrackTest : public testing::Test {
 protected:
  void SetUp() override { ResetAll(); }
  void TearDown() override { ResetAll(); }
  static void ResetAll() {
    track_ref_reset();
    logger_ref_reset();
    zorm_ref_reset();
    TheCache().Reset();
  }

  int Init() { return InitUnifiedTrack(LOGGER_LEVEL_INFO, 0, 2, Dir(), Dir()); }
  // As the product's start does: key management runs for a moment only.
  void RunKeyManagement() {
    ASSERT_EQ(
        orb_zorm_service_start_ex("", m_dir.File("zorm/a").c_str(), m_dir.File("zorm/b").c_str()),
        0);
    ASSERT_EQ(orb_zorm_service_stop(), 0);
  }
  void Begin() {
    ASSERT_EQ(Init(), 0);
    RunKeyManagement();
  }

  // Events of an earlier process, which had no log directory and so could send nothing.
  void LeaveBehind(const std::vector<const char*>& texts) {
    EXPECT_NE(InitUnifiedTrack(2, 0, 2, "", Dir()), 0);
    RunKeyManagement();
    for (const char* text : texts) EXPECT_EQ(AddText(text), 0);
    track_ref_reset();
  }

  const char* Dir() const { return m_dir.Path().c_str(); }
  std::string EventText() const {
    const std::string path = m_dir.File("ut_events.jsonl");
    return std::filesystem::exists(path) ? support::ReadWholeFile(path) : "";
  }
  std::string LogText() const { return support::ReadWholeFile(m_dir.File("native_sdk.txt")); }

  // The lines of the event file once it has `count`; each must be one JSON object.
  std::vector<Json::Value> Events(int count) const {
    (void)Track_UploadUserTrack();
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (CountIn(EventText(), "\n") < count && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    std::vector<Json::Value> events;
    std::istringstream text(EventText());
    for (std::string line; std::getline(text, line);) {
      Json::Value event;
      std::istringstream one(line);
      std::string errors;
      EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), one, &event, &errors)) << line;
      events.push_back(event);
    }
    EXPECT_EQ(events.size(), static_cast<std::size_t>(count));
    events.resize(static_cast<std::size_t>(count));
    return events;
  }
  bool SpoolIsEmpty() const {
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.File("track"))) {
      if (entry.path().extension() == ".spool") return false;
    }
    return true;
  }

  support::TempDir m_dir;
};

TEST_F(TrackTest, CompletesAnEventWithTimeSessionSequenceAndParameters) {
  UTContextRecord context = {};
  std::memset(context.version, 'v', sizeof(context.version));  // without a NUL
  std::memset(context.accessSubtype, 's', sizeof(context.accessSubtype));
  ASSERT_EQ(Track_ConfigTanloContextPublicParam(&context), 0);
  const UTPublicSdkRecord sdk = {{"uuid", "account"}};
  ASSERT_EQ(Track_ConfigPublicSdkParam(&sdk), 0);
  ASSERT_EQ(Track_ConfigCustomParam(3, nullptr), 0);
  Begin();
  auto args = std::make_unique<std::string>("{\"errorCode\":0}");
  EXPECT_EQ(AddText(args->c_str()), 0);
  args.reset();  // the library has its own copy
  EXPECT_EQ(MediaTrack_AddDataConfDotData(7, nullptr, true), 0);

  const std::vector<Json::Value> events = Events(2);
  EXPECT_EQ(events[0]["args"], "{\"errorCode\":0}");
  EXPECT_EQ(events[0]["param"], 5);
  EXPECT_FALSE(events[0].isMember("arg2"));
  EXPECT_GT(events[0]["timeMs"].asInt64(), 1700000000000);
  EXPECT_EQ(events[0]["session"].asString().size(), 36U);
  EXPECT_EQ(events[0]["session"], events[1]["session"]);
  EXPECT_EQ(events[0]["sequence"], 1);
  EXPECT_EQ(events[1]["sequence"], 2);
  for (const Json::Value& event : events) {
    EXPECT_EQ(event["version"], std::string(16, 'v'));
    EXPECT_EQ(event["accessSubtype"], std::string(16, 's'));
    EXPECT_EQ(event["brand"], "");
    EXPECT_EQ(event["uploadSwitch"], 3);
    EXPECT_FALSE(event.isMember("sdkAccount"));  // the file is no secret
  }
  EXPECT_EQ(events[1]["id"], 7);
  EXPECT_EQ(events[1]["flag"], 1);
}

TEST_F(TrackTest, KeepsABoundedNumberOfEventsInMemoryUntilKeyManagementRunsAndThenOnDisk) {
  EXPECT_EQ(AddText("nobody began"), 0);
  EXPECT_EQ(Track_UploadUserTrack(), 0);
  EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
  ASSERT_EQ(Init(), 0);
  for (int i = 0; i < 1500; ++i) EXPECT_EQ(AddText(std::to_string(i).c_str()), 0);
  RunKeyManagement();
  EXPECT_EQ(AddText("after"), 0);
  const std::vector<Json::Value> events = Events(1002);
  EXPECT_EQ(events[0]["args"], "500");
  const bool isReportLast = events[1001].isMember("dropped");
  EXPECT_EQ(events[isReportLast ? 1000 : 1001]["args"], "after");
  EXPECT_EQ(events[isReportLast ? 1001 : 1000]["dropped"], 500);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_EQ(AddText("nobody listens"), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  ASSERT_EQ(Init(), 0);  // the key is known from now on
  EXPECT_EQ(AddText("again"), 0);
  EXPECT_NE(Events(1003)[1002]["session"], events[1]["session"]);
}

TEST_F(TrackTest, SendsWhatAnEarlierProcessLeftCountsWhatALostKeyCostsAndPurgesWithoutConsent) {
  LeaveBehind({"left"});
  Begin();
  EXPECT_EQ(Events(1)[0]["args"], "left");
  track_ref_reset();
  LeaveBehind({"lost", "lost"});
  support::WriteWholeFile(m_dir.File("track/key"), "damaged");
  Begin();
  const Json::Value report = Events(2)[1];
  EXPECT_EQ(report["eventId"], "track_dropped");
  EXPECT_EQ(report["dropped"], 2);
  track_ref_reset();
  LeaveBehind({"unwanted"});
  EXPECT_EQ(Track_ConfigCustomParam(0, nullptr), 0);
  Begin();
  EXPECT_TRUE(SpoolIsEmpty());
}

TEST_F(TrackTest, StoresAndSendsNothingWithoutConsent) {
  Begin();
  EXPECT_EQ(AddText("purged"), 0);
  EXPECT_EQ(Track_StartEvent("i", 1), 0);
  EXPECT_EQ(Track_ConfigCustomParam(0, nullptr), 0);
  EXPECT_EQ(AddText("unwanted"), 0);
  EXPECT_TRUE(SpoolIsEmpty());
  EXPECT_EQ(Track_ConfigCustomParam(1, nullptr), 0);
  const UTEventRecord event = Event("never started");
  EXPECT_NE(Track_FinishEvent("i", &event, 1), 0);
  EXPECT_EQ(AddText("wanted"), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_EQ(EventText().find("unwanted"), std::string::npos);
  EXPECT_NE(EventText().find("\"wanted\""), std::string::npos);
}

TEST_F(TrackTest, DropsWhatMakesNoSenseWithOneLogLineEach) {
  Begin();
  const UTEventRecord event = Event("x");
  const UTSubEventRecord sub = {nullptr};
  const std::string longIndex(300, 'i');
  const std::string longText(300 * 1024, 'x');
  int lines = 0;
  const auto dropped = [&](int result) {
    EXPECT_NE(result, 0) << lines;
    EXPECT_EQ(CountIn(LogText(), "] track: "), ++lines);
  };
  dropped(Track_FinishEvent("never", &event, 5));
  dropped(Track_AddSubEvent("never", &sub, 5));
  dropped(Track_StartEvent(nullptr, 5));
  dropped(Track_StartEvent("x", 0));
  dropped(Track_StartEvent(longIndex.c_str(), longIndex.size()));
  dropped(AddText(longText.c_str()));
  const UTPublicSdkRecord sdk = {{longText.c_str()}};
  dropped(Track_ConfigPublicSdkParam(&sdk));
  EXPECT_EQ(Track_StartEvent("twice", 5), 0);
  dropped(Track_StartEvent("twice", 5) == 0 ? 1 : 0);  // goes on with the second start
  EXPECT_EQ(Track_FinishEvent("twice", &event, 5), 0);
  dropped(Track_FinishEvent("twice", &event, 5));
  EXPECT_NE(Track_AddUserTrack(nullptr), 0);
  EXPECT_NE(Track_ConfigPublicSdkParam(nullptr), 0);
  lines = CountIn(LogText(), "] track: ");
  for (int i = 0; i < 256; ++i) EXPECT_EQ(Track_StartEvent(std::to_string(i).c_str(), 3), 0);
  dropped(Track_StartEvent("256", 3));
  (void)Events(1);
}

TEST_F(TrackTest, TimesEventsByTheirIndexAndAcceptsNullTexts) {
  Begin();
  const UTEventRecord event = Event("x"), empty = {};
  const UTSubEventRecord sub = {&event};
  const char unended[4] = {'i', 'n', 'd', 'x'};
  EXPECT_EQ(Track_StartEvent(unended, 4), 0);
  EXPECT_EQ(Track_AddSubEvent(unended, &sub, 4), 0);
  EXPECT_EQ(Track_FinishEvent("indx and more", &event, 4), 0);
  EXPECT_EQ(Track_AddMediaTrack(&empty, false), 0);
  Track_ErrorAnalyze(nullptr, nullptr);
  UTCpuMemoryRecord cpu = {{1, 2, -3}, {}};
  std::memset(cpu.text, 'c', sizeof(cpu.text));
  EXPECT_EQ(MediaTrack_SetCpuAndMemoryInfo(&cpu), 0);
  const std::vector<Json::Value> events = Events(5);
  EXPECT_EQ(events[0]["function"], "Track_AddSubEvent");
  EXPECT_EQ(events[0]["hasSubEvent"], 1);
  EXPECT_EQ(events[1]["index"], "indx");
  EXPECT_EQ(events[1]["subEvents"], 1);
  EXPECT_GE(events[1]["durationMs"].asInt64(), 0);
  EXPECT_LE(events[1]["startTimeMs"].asInt64(), events[1]["timeMs"].asInt64());
  EXPECT_FALSE(events[2].isMember("eventId"));
  EXPECT_FALSE(events[3].isMember("text"));
  EXPECT_EQ(events[4]["text"], std::string(256, 'c'));
  EXPECT_EQ(events[4]["value2"], -3);
}

TEST_F(TrackTest, KeepsSecretsOutOfItsFiles) {
  const std::vector<std::string> secrets = {"s3cret", "pass\"word\\", "gehe\xc3\xafm"};
  for (const std::string& secret : secrets) LogStream::AddSensitiveWord(secret);
  Begin();
  for (const std::string& secret : secrets) {
    const std::string text = "before " + secret + " after http://u:pw@host";
    EXPECT_EQ(AddText(text.c_str()), 0);
    IntelligentAnalyseDoStubToLog("native_sdk", "HTTP", 2, "detectURL", "[resp:%s] %d.",
                                  text.c_str(), 200);
    Track_AddTraceApiLog(0, 7, "%s", text.c_str());
  }
  for (const Json::Value& event : Events(6)) {
    const char* key = event["function"] == "Track_AddUserTrack" ? "args" : "text";
    EXPECT_EQ(event[key], "before *** after http://***@host");
  }
  EXPECT_NE(LogText().find("detectURL:0] [HTTP] [resp:before *** after http://***@host] 200.\n"),
            std::string::npos);
  EXPECT_NE(LogText().find("Track_AddTraceApiLog:0] before *** after http://***@host\n"),
            std::string::npos);
  for (const std::string& secret : secrets) EXPECT_EQ(LogText().find(secret), std::string::npos);
}

TEST_F(TrackTest, SendsValidUtf8ForWhateverCame) {
  Begin();
  const std::string bad = "\xef\xbf\xbd";
  const std::vector<std::pair<std::string, std::string>> texts = {
      {"a\xff\xfe\xc3\r\n{\"forged\":1}\n\x01", "a" + bad + bad + bad + "\r\n{\"forged\":1}\n\x01"},
      {"\xc0\xaf", bad + bad},                      // overlong
      {"\xed\xa0\x80", bad + bad + bad},            // surrogate
      {"\xf4\x90\x80\x80", bad + bad + bad + bad},  // beyond the end
      {"\xf0\x9f\x98\x80 \xe2\x82\xac", "\xf0\x9f\x98\x80 \xe2\x82\xac"},
      {"cut \xe2\x82", "cut " + bad + bad}};
  for (const auto& [text, sent] : texts) EXPECT_EQ(AddText(text.c_str()), 0);
  const std::vector<Json::Value> events = Events(static_cast<int>(texts.size()));
  for (std::size_t i = 0; i < texts.size(); ++i) EXPECT_EQ(events[i]["args"], texts[i].second) << i;
}

TEST_F(TrackTest, MovesItsFilesWithTheLogPathRotatesThemAndLeavesAnothersLogAlone) {
  Begin();
  const std::string directory = m_dir.File("moved");  // made by the library
  ASSERT_EQ(Track_UpdateLogPath(LOGGER_LEVEL_INFO, 10, 1, directory.c_str()), 0);
  Track_AddTraceApiLog(0, 7, "%s", "line");
  const std::string text(4000, 'x');
  for (int i = 0; i < 3; ++i) EXPECT_EQ(AddText(text.c_str()), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_EQ(LogText() + EventText(), "");
  EXPECT_GT(std::filesystem::file_size(directory + "/native_sdk.txt"), 0U);
  EXPECT_GT(std::filesystem::file_size(directory + "/ut_events.jsonl"), 4000U);
  EXPECT_GT(std::filesystem::file_size(directory + "/ut_events.1.jsonl"), 4000U);

  ResetAll();
  const std::string other = m_dir.File("host.txt");
  ASSERT_EQ(LogStream::InitLog("native_sdk", other.c_str(), 100, 1, 2), 0);
  ASSERT_EQ(Init(), 0);
  ASSERT_EQ(Track_UpdateLogPath(2, 0, 2, Dir()), 0);
  Track_AddTraceApiLog(0, 7, "%s", "line");
  EXPECT_EQ(LogText(), "");
  EXPECT_NE(support::ReadWholeFile(other).find("line"), std::string::npos);
}

TEST_F(TrackTest, ReportsAnUnusableDirectoryAndGoesOn) {
  const std::string nowhere = m_dir.File("no/where"), below = m_dir.File("file") + "/below";
  support::WriteWholeFile(m_dir.File("file"), "in the way");
  const std::pair<const char*, const char*> cases[] = {
      {"", Dir()},      {nullptr, Dir()},         {Dir(), ""},
      {Dir(), nullptr}, {nowhere.c_str(), Dir()}, {Dir(), below.c_str()}};
  for (const auto& [logs, database] : cases) {
    EXPECT_NE(InitUnifiedTrack(2, 1, 1, logs, database), 0);
    EXPECT_EQ(Track_Uninit(), 0);
  }
  Begin();
  EXPECT_NE(Track_UpdateLogPath(2, 1, 1, nowhere.c_str()), 0);
  EXPECT_EQ(AddText("y"), 0);
  EXPECT_EQ(Events(1)[0]["args"], "y");
}

TEST_F(TrackTest, KeepsItsStateWithTheCacheFunctionsOnceACommandHasEnded) {
  setAddCacheFun(KeepRow, FindRow);
  Begin();
  EXPECT_EQ(AddText("x"), 0);
  const std::string session = Events(1)[0]["session"].asString();
  Track_MsgDotCount(3);
  Track_MsgDotCount(-1);
  EXPECT_EQ(TheCache().queries + TheCache().adds, 0);
  Track_MsgDotCount(4);  // the initialisation was the worker's command
  EXPECT_EQ(track_ref_messages(4), 1U);
  TheCache().WaitForAdds(1);
  EXPECT_EQ(TheCache().value, session + " 1");
  EXPECT_EQ(Track_Uninit(), 0);
  ASSERT_EQ(Init(), 0);
  TheCache().WaitForAdds(2);
  const Json::Value event = Events(2)[1];
  EXPECT_EQ(event["eventId"], "track_session");
  EXPECT_EQ(event["previousSession"], session);
  EXPECT_EQ(event["previousSequence"], 1);
}

// After the worker has stopped, a call into its library never returns.
TEST_F(TrackTest, EndsWhileACacheFunctionHangs) {
  TheCache().hangs = true;
  setAddCacheFun(KeepRow, FindRow);
  Begin();
  Track_MsgDotCount(4);
  TheCache().WaitForAdds(1);
  EXPECT_EQ(Track_Uninit(), 0);
  Begin();
  EXPECT_EQ(AddText("x"), 0);
  TheCache().WaitForAdds(2);
  (void)Events(2);  // with the report on the session before
  const std::lock_guard<std::mutex> hold(TheCache().lock);
  TheCache().hangs = false;
  TheCache().changed.notify_all();
}

std::atomic<int> g_errors{0};
void CountError(const char* text) {
  ++g_errors;
  Track_ErrorAnalyze("log_error", text);
}

TEST_F(TrackTest, TellsItsOwnErrorsToTheErrorFunctionOnAnotherThread) {
  SetErrTrackCallback(CountError);
  EXPECT_NE(InitUnifiedTrack(2, 0, 2, "", Dir()), 0);  // no event file
  RunKeyManagement();
  Track_ErrorAnalyze("log_error", "text");
  EXPECT_EQ(g_errors, 0);
  EXPECT_EQ(Track_UploadUserTrack(), 0);
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (g_errors == 0 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  EXPECT_EQ(g_errors, 1);
}

TEST_F(TrackTest, LosesNothingWhileThreadsTrackAndTheLibraryRestarts) {
  constexpr int kThreads = 3;
  constexpr int kEventsEach = 200;
  Begin();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEventsEach; ++i) EXPECT_EQ(AddText("from a thread"), 0);
    });
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Track_Uninit(), 0);
    EXPECT_EQ(Init(), 0);
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(AddText("last"), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  std::set<std::pair<std::string, std::uint64_t>> seen;
  const std::vector<Json::Value> events = Events(CountIn(EventText(), "\n"));
  for (const Json::Value& event : events) {
    EXPECT_TRUE(seen.emplace(event["session"].asString(), event["sequence"].asUInt64()).second);
  }
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back()["args"], "last");
}

}  // namespace
