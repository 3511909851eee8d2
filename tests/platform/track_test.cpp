#include "zel_platform/track.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "logger/logger_ref.h"
#include "support/TempDir.h"
#include "track/TrackEvent.h"
#include "track/track_ref.h"
#include "zel_platform/logger.h"
#include "zel_platform/zorm.h"
#include "zorm/zorm_ref.h"

namespace {

constexpr char kLog[] = "native_sdk.txt";
constexpr char kEvents[] = "ut_events.jsonl";
constexpr std::chrono::seconds kDeadline(60);  // only a hang takes that long

template <class Condition>
void WaitUntil(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
}

UTEventRecord Event(const char* args) { return {"1", "event", nullptr, nullptr, args, 5}; }

int AddText(const std::string& args) {  // gone when the library has its own copy
  const UTEventRecord event = Event(args.c_str());
  return Track_AddUserTrack(&event);
}

class TrackTest : public testing::Test {
 protected:
  TrackTest() { Reset(); }
  ~TrackTest() override { Reset(); }
  static void Reset() {
    track_ref_reset();
    logger_ref_reset();
    zorm_ref_reset();
  }

  int Init() { return InitUnifiedTrack(LOGGER_LEVEL_INFO, 0, 2, Dir(), Dir()); }
  // As the product's start does: key management runs for a moment only.
  void RunKeyManagement() {
    const std::string store = m_dir.File("zorm/a"), backup = m_dir.File("zorm/b");
    ASSERT_EQ(orb_zorm_service_start_ex("", store.c_str(), backup.c_str()), 0);
    ASSERT_EQ(orb_zorm_service_stop(), 0);
  }
  void Begin() {
    ASSERT_EQ(Init(), 0);
    RunKeyManagement();
  }

  // Events of an earlier process, which had no log directory and so could send nothing.
  void LeaveBehind(const std::vector<const char*>& texts) {
    track_ref_reset();
    EXPECT_NE(InitUnifiedTrack(2, 0, 2, "", Dir()), 0);
    RunKeyManagement();
    for (const char* text : texts) EXPECT_EQ(AddText(text), 0);
    track_ref_reset();
  }

  const char* Dir() const { return m_dir.Path().c_str(); }
  // The whole lines of a file that hold `part`.
  std::vector<std::string> Lines(const char* name, const std::string& part = "") const {
    std::ifstream file(m_dir.File(name));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line) && !file.eof();) {
      if (line.find(part) != std::string::npos) lines.push_back(line);
    }
    return lines;
  }
  // The events of the file once it has `count`.
  std::vector<Json::Value> Events(std::size_t count) const {
    (void)Track_UploadUserTrack();
    WaitUntil([&] { return Lines(kEvents).size() >= count; });
    std::vector<Json::Value> events;
    for (const std::string& line : Lines(kEvents)) {
      EXPECT_TRUE(Json::Reader().parse(line, events.emplace_back())) << line;
    }
    EXPECT_EQ(events.size(), count);
    events.resize(count);
    return events;
  }
  support::TempDir m_dir;
};

TEST_F(TrackTest, KeepsABoundedNumberOfEventsInMemoryUntilKeyManagementRunsAndThenOnDisk) {
  EXPECT_EQ(AddText("nobody began"), 0);
  EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
  ASSERT_EQ(Init(), 0);
  for (int i = 0; i < 1500; ++i) EXPECT_EQ(AddText(std::to_string(i)), 0);
  RunKeyManagement();
  EXPECT_EQ(AddText("after"), 0);
  const Json::Value first = Events(1002)[0];
  EXPECT_EQ(first["args"], "500");
  EXPECT_EQ(Lines(kEvents, R"("dropped":500)").size(), 1U);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_EQ(AddText("nobody listens"), 0);
  ASSERT_EQ(Init(), 0);  // the key is known from now on
  EXPECT_EQ(AddText("again"), 0);
  EXPECT_NE(Events(1003)[1002]["session"], first["session"]);
}

TEST_F(TrackTest, SendsWhatAnEarlierProcessLeftAndCountsWhatALostKeyCosts) {
  LeaveBehind({"left"});
  Begin();
  EXPECT_EQ(Events(1)[0]["args"], "left");
  LeaveBehind({"lost", "lost"});
  support::WriteWholeFile(m_dir.File("track/key"), "damaged");
  Begin();
  EXPECT_EQ(Events(2)[1]["dropped"], 2);
}

TEST_F(TrackTest, StoresAndSendsNothingWithoutConsent) {
  LeaveBehind({"unwanted"});
  EXPECT_EQ(Track_ConfigCustomParam(0, nullptr), 0);
  Begin();
  EXPECT_EQ(Track_Uninit(), 0);  // sends what is there
  Begin();
  EXPECT_EQ(Track_ConfigCustomParam(1, nullptr), 0);
  EXPECT_EQ(Track_StartEvent("i", 1), 0);
  EXPECT_EQ(Track_ConfigCustomParam(0, nullptr), 0);
  EXPECT_EQ(AddText("unwanted"), 0);
  EXPECT_EQ(Track_ConfigCustomParam(1, nullptr), 0);
  const UTEventRecord event = Event("never started");
  EXPECT_NE(Track_FinishEvent("i", &event, 1), 0);
  EXPECT_EQ(AddText("wanted"), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_TRUE(Lines(kEvents, "unwanted").empty());
  EXPECT_EQ(Lines(kEvents, "\"wanted\"").size(), 1U);
}

TEST_F(TrackTest, DropsWhatMakesNoSenseWithOneLogLineEach) {
  Begin();
  const UTEventRecord event = Event("x");
  const UTSubEventRecord sub = {nullptr};
  const std::string tooLong(300 * 1024, 'x');
  const UTPublicSdkRecord sdk = {{tooLong.c_str()}};
  EXPECT_EQ(Track_StartEvent("twice", 5), 0);
  EXPECT_EQ(Track_StartEvent("twice", 5), 0);  // goes on with the second start, and one line
  EXPECT_EQ(Track_FinishEvent("twice", &event, 5), 0);
  for (int i = 0; i < 256; ++i) EXPECT_EQ(Track_StartEvent(std::to_string(i).c_str(), 3), 0);
  const std::vector<int> results = {Track_FinishEvent("twice", &event, 5),
                                    Track_AddSubEvent("never", &sub, 5),
                                    Track_StartEvent("256", 3),
                                    Track_StartEvent(nullptr, 5),
                                    Track_StartEvent(tooLong.c_str(), 300),
                                    AddText(tooLong),
                                    Track_ConfigPublicSdkParam(&sdk)};
  EXPECT_EQ(std::count(results.begin(), results.end(), 0), 0) << testing::PrintToString(results);
  EXPECT_EQ(Lines(kLog, "] track: ").size(), 1 + results.size());
  EXPECT_NE(Track_AddUserTrack(nullptr), 0);
  EXPECT_NE(Track_ConfigPublicSdkParam(nullptr), 0);
  (void)Events(1);
}

TEST_F(TrackTest, WritesWhatEachCallBringsAndWhatAllHaveInCommon) {
  UTContextRecord context = {};
  std::memset(context.accessSubtype, 's', sizeof(context.accessSubtype));  // without a NUL
  ASSERT_EQ(Track_ConfigTanloContextPublicParam(&context), 0);
  const UTPublicSdkRecord sdk = {{"uuid", "account"}};
  ASSERT_EQ(Track_ConfigPublicSdkParam(&sdk), 0);
  ASSERT_EQ(Track_ConfigCustomParam(3, nullptr), 0);
  Begin();
  const UTEventRecord event = Event("x"), empty = {};
  const UTSubEventRecord sub = {&event};
  const char unended[4] = {'i', 'n', 'd', 'x'};
  EXPECT_EQ(Track_StartEvent(unended, 4), 0);
  EXPECT_EQ(Track_AddSubEvent(unended, &sub, 4), 0);
  EXPECT_EQ(Track_FinishEvent("indx and more", &event, 4), 0);
  EXPECT_EQ(MediaTrack_AddDataConfDotData(7, nullptr, true), 0);
  UTCpuMemoryRecord cpu = {{1, 2, -3}, {}};
  std::memset(cpu.text, 'c', sizeof(cpu.text));
  EXPECT_EQ(MediaTrack_SetCpuAndMemoryInfo(&cpu), 0);
  EXPECT_EQ(Track_AddMediaTrack(&empty, false), 0);
  const Json::Value finished = Events(5)[1];
  EXPECT_GE(finished["durationMs"].asInt64(), 0);
  EXPECT_LE(finished["startTimeMs"].asInt64(), finished["timeMs"].asInt64());
  const std::string cpuText(256, 'c');
  for (const char* once : {R"("hasSubEvent":1)", R"("flag":1)", R"("value2":-3)", R"("sequence":4)",
                           cpuText.c_str()}) {
    EXPECT_EQ(Lines(kEvents, once).size(), 1U) << once;
  }
  EXPECT_EQ(Lines(kEvents, R"("index":"indx")").size(), 2U);
  EXPECT_EQ(Lines(kEvents, R"("accessSubtype":"ssssssssssssssss")").size(), 5U);
  EXPECT_EQ(Lines(kEvents, R"("uploadSwitch":3)").size(), 5U);
  EXPECT_TRUE(Lines(kEvents, "account").empty()) << "the file is no secret";
  EXPECT_TRUE(Lines(kEvents, R"("data":)").empty());
}

TEST_F(TrackTest, KeepsSecretsOutOfItsFiles) {
  for (const char* secret : {"s3cret", "pass\"word\\"}) LogStream::AddSensitiveWord(secret);
  Begin();
  const std::string text = "a s3cret pass\"word\\ http://u:pw@host";
  const std::string masked = "a *** *** http://***@host";
  EXPECT_EQ(AddText(text), 0);
  Track_AddTraceApiLog(0, 7, "%s", text.c_str());
  IntelligentAnalyseDoStubToLog("native_sdk", "HTTP", 2, "detectURL", "[%s]", text.c_str());
  EXPECT_EQ(Events(2)[0]["args"], masked);
  EXPECT_EQ(Events(2)[1]["text"], masked);
  EXPECT_EQ(Lines(kLog, "Track_AddTraceApiLog:0] " + masked).size(), 1U);
  EXPECT_EQ(Lines(kLog, "detectURL:0] [HTTP] [" + masked + "]").size(), 1U);
}

TEST(TrackEventTest, WhateverCameBecomesValidUtf8) {
  const std::string bad = "\xef\xbf\xbd";
  const std::pair<const char*, std::string> cases[] = {
      {"a\xff\xc3\r\n\x01", "a" + bad + bad + "\r\n\x01"},
      {"\xc0\xaf", bad + bad},                      // overlong
      {"\xed\xa0\x80", bad + bad + bad},            // surrogate
      {"\xf4\x90\x80\x80", bad + bad + bad + bad},  // beyond the end
      {"\xf0\x9f\x98\x80 \xe2\x82", "\xf0\x9f\x98\x80 " + bad + bad}};
  for (const auto& [text, readable] : cases) EXPECT_EQ(ReadableText(text), readable);
}

TEST_F(TrackTest, MovesItsFilesWithTheLogPathRotatesThemAndLeavesAnothersLogAlone) {
  Begin();
  const std::string directory = m_dir.File("moved");  // made by the library
  ASSERT_EQ(Track_UpdateLogPath(LOGGER_LEVEL_INFO, 10, 1, directory.c_str()), 0);
  Track_AddTraceApiLog(0, 7, "%s", "line");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(AddText(std::string(4000, 'x')), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_EQ(Lines("moved/native_sdk.txt", "line").size(), 1U);
  EXPECT_FALSE(Lines("moved/ut_events.jsonl").empty());
  EXPECT_FALSE(Lines("moved/ut_events.1.jsonl").empty());

  Reset();
  ASSERT_EQ(LogStream::InitLog("native_sdk", m_dir.File("host.txt").c_str(), 100, 1, 2), 0);
  ASSERT_EQ(Init(), 0);
  ASSERT_EQ(Track_UpdateLogPath(2, 0, 2, Dir()), 0);
  Track_AddTraceApiLog(0, 7, "%s", "line");
  EXPECT_TRUE(Lines(kLog).empty());
  EXPECT_EQ(Lines("host.txt", "line").size(), 1U);
}

std::atomic<int> g_errors{0};
void CountError(const char* text) {
  ++g_errors;
  Track_ErrorAnalyze("log_error", text);
}

TEST_F(TrackTest, ReportsAnUnusableDirectoryAndTellsTheErrorFunctionOnAnotherThread) {
  const std::string nowhere = m_dir.File("no/where"), below = m_dir.File("file") + "/below";
  support::WriteWholeFile(m_dir.File("file"), "in the way");
  const std::pair<const char*, const char*> cases[] = {
      {nullptr, Dir()}, {Dir(), nullptr}, {nowhere.c_str(), Dir()}, {Dir(), below.c_str()}};
  for (const auto& [logs, database] : cases) {
    EXPECT_NE(InitUnifiedTrack(2, 1, 1, logs, database), 0);
    EXPECT_EQ(Track_Uninit(), 0);
  }
  Reset();
  g_errors = 0;
  SetErrTrackCallback(CountError);
  EXPECT_NE(InitUnifiedTrack(2, 0, 2, "", Dir()), 0);  // no event file
  RunKeyManagement();
  EXPECT_EQ(AddText("y"), 0);
  WaitUntil([] { return g_errors > 0; });
  EXPECT_EQ(g_errors, 1);
  EXPECT_NE(Track_UpdateLogPath(2, 1, 1, nowhere.c_str()), 0);
  EXPECT_EQ(Track_UpdateLogPath(2, 0, 2, Dir()), 0);
  EXPECT_EQ(Events(2)[0]["args"], "y");
}

// The library behind the cache functions: one row, whose writer may be made to hang.
struct CacheRow {
  std::int32_t autoId;
  std::string key, value;
};
std::string g_row;
std::atomic<int> g_calls{0};  // counted once g_row is written
std::mutex g_writing;

int KeepRow(const void* entries, int /*count*/) {
  g_row = static_cast<const CacheRow*>(entries)->value;
  ++g_calls;
  const std::lock_guard<std::mutex> waiting(g_writing);
  return 0;
}

int FindRow(const char* key, void* out, int* count) {
  ++g_calls;
  *static_cast<CacheRow*>(out) = {1, key, g_row};
  return *count == 1 && !g_row.empty() ? 0 : 1;
}

// After the worker has stopped, a call into its library never returns.
TEST_F(TrackTest, KeepsItsStateWithTheCacheFunctionsOnceACommandHasEndedAndEndsWhileTheyHang) {
  g_row.clear();
  g_calls = 0;
  setAddCacheFun(KeepRow, FindRow);
  Begin();
  EXPECT_EQ(AddText("x"), 0);
  const std::string session = Events(1)[0]["session"].asString();
  for (const int category : {3, -1}) Track_MsgDotCount(category);
  EXPECT_EQ(g_calls, 0);
  Track_MsgDotCount(4);  // the initialisation was the worker's command
  WaitUntil([] { return g_calls == 2; });
  EXPECT_EQ(g_row, session + " 1");
  EXPECT_EQ(Track_Uninit(), 0);
  const std::lock_guard<std::mutex> hanging(g_writing);
  ASSERT_EQ(Init(), 0);
  WaitUntil([] { return g_calls == 4; });
  EXPECT_EQ(Events(2)[1]["previousSession"], session);
  EXPECT_EQ(Events(2)[1]["previousSequence"], 1);
  EXPECT_EQ(Track_Uninit(), 0);
}

TEST_F(TrackTest, LosesNothingWhileThreadsTrackAndTheLibraryRestarts) {
  Begin();
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) EXPECT_EQ(AddText("from a thread"), 0);
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
  for (const Json::Value& event : Events(Lines(kEvents).size())) {
    EXPECT_TRUE(seen.emplace(event["session"].asString(), event["sequence"].asUInt64()).second);
  }
  EXPECT_NE(Lines(kEvents).back().find("\"last\""), std::string::npos);
}

}  // namespace
