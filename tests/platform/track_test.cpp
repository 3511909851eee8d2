#include "zel_platform/track.h"

#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "logger/logger_ref.h"
#include "support/TempDir.h"
#include "track/track_ref.h"
#include "zel_platform/logger.h"

namespace {

std::atomic<int> g_called{0};
int CountBatchAdd(const void*, int) { return ++g_called; }
int CountQuery(const char*, void*, int*) { return ++g_called; }
void CountError(const char*) { ++g_called; }

UTEventRecord Event(const char* args) { return {"1", "event", nullptr, nullptr, args, 5}; }

class TrackTest : public testing::Test {
 protected:
  void SetUp() override { ResetAll(); }
  void TearDown() override { ResetAll(); }
  static void ResetAll() {
    track_ref_reset();
    logger_ref_reset();
    g_called = 0;
  }

  int Init() { return InitUnifiedTrack(LOGGER_LEVEL_INFO, 0, 2, m_dir.Path().c_str(), ""); }
  std::string EventText() const { return support::ReadWholeFile(m_dir.File("ut_events.jsonl")); }
  std::string LogText() const { return support::ReadWholeFile(m_dir.File("native_sdk.txt")); }

  // The lines of the event file; fails the test when one of them is no JSON object.
  std::vector<Json::Value> Events() const {
    std::vector<Json::Value> events;
    std::istringstream text(EventText());
    for (std::string line; std::getline(text, line);) {
      Json::Value event;
      std::istringstream one(line);
      std::string errors;
      EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), one, &event, &errors)) << line;
      events.push_back(event);
    }
    return events;
  }

  support::TempDir m_dir;
};

TEST_F(TrackTest, WritesEachEventAsOneJsonLineWithNullTexts) {
  ASSERT_EQ(Init(), 0);
  auto args = std::make_unique<std::string>("{\"errorCode\":0}");
  const UTEventRecord event = Event(args->c_str());
  EXPECT_EQ(Track_AddUserTrack(&event), 0);
  args.reset();  // the library has its own copy
  const UTEventRecord empty{};
  EXPECT_EQ(Track_FinishEvent("index and more", &empty, 5), 0);

  const std::vector<Json::Value> events = Events();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0]["function"], "Track_AddUserTrack");
  EXPECT_EQ(events[0]["args"], "{\"errorCode\":0}");
  EXPECT_EQ(events[0]["param"], 5);
  EXPECT_TRUE(events[0].isMember("arg2"));
  EXPECT_TRUE(events[0]["arg2"].isNull());
  EXPECT_EQ(events[1]["index"], "index");
  EXPECT_EQ(*track_ref_records()[0].Text("args"), "{\"errorCode\":0}");
  EXPECT_EQ(track_ref_records()[1].Text("eventId"), nullptr);
}

TEST_F(TrackTest, AcceptsCallsBeforeInitAndAfterUninitWithoutWriting) {
  const UTEventRecord event = Event("x");
  EXPECT_EQ(Track_AddUserTrack(&event), 0);
  EXPECT_EQ(Track_UpdateLogPath(2, 0, 0, m_dir.Path().c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
  ASSERT_EQ(Init(), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_EQ(Track_AddUserTrack(&event), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_TRUE(Events().empty());
  EXPECT_EQ(track_ref_calls("Track_AddUserTrack"), 2U);
}

TEST_F(TrackTest, AcceptsNullTextsAndRefusesNullRecords) {
  ASSERT_EQ(Init(), 0);
  EXPECT_EQ(Track_StartEvent(nullptr, 5), 0);
  EXPECT_EQ(MediaTrack_AddDataConfDotData(1, nullptr, true), 0);
  Track_ErrorAnalyze(nullptr, nullptr);
  const UTPublicSdkRecord sdk{};
  EXPECT_EQ(Track_ConfigPublicSdkParam(&sdk), 0);
  EXPECT_EQ(Track_ConfigCustomParam(1, nullptr), 0);
  EXPECT_NE(Track_AddUserTrack(nullptr), 0);
  EXPECT_NE(Track_FinishEvent("i", nullptr, 1), 0);
  EXPECT_NE(Track_AddSubEvent("i", nullptr, 1), 0);
  EXPECT_NE(MediaTrack_SetCpuAndMemoryInfo(nullptr), 0);
  EXPECT_EQ(Events().size(), 3U);  // configuration is not an event
}

TEST_F(TrackTest, CopiesArraysThatFillTheirFieldWithoutNul) {
  UTContextRecord context;
  std::memset(&context, 'c', sizeof(context));
  EXPECT_EQ(Track_ConfigTanloContextPublicParam(&context), 0);
  const TrackRecord copy = track_ref_records().at(0);
  ASSERT_EQ(copy.texts.size(), 13U);
  EXPECT_EQ(*copy.Text("version"), std::string(16, 'c'));
  EXPECT_EQ(*copy.Text("accessSubtype"), std::string(16, 'c'));
}

TEST_F(TrackTest, KeepsSecretsOutOfItsFiles) {
  const std::vector<std::string> secrets = {"s3cret", "pass\"word\\", "gehe\xc3\xafm"};
  for (const std::string& secret : secrets) LogStream::AddSensitiveWord(secret);
  ASSERT_EQ(Init(), 0);
  for (const std::string& secret : secrets) {
    const std::string text = "before " + secret + " after http://u:pw@host";
    const UTEventRecord event{text.c_str(), text.c_str(), nullptr, nullptr, text.c_str(), 0};
    EXPECT_EQ(Track_AddUserTrack(&event), 0);
    Track_ErrorAnalyze("log_error", text.c_str());
    IntelligentAnalyseDoStubToLog("native_sdk", "HTTP", 2, "detectURL", "[resp:%s] %d.",
                                  text.c_str(), 200);
    Track_AddTraceApiLog(0, 7, "%s", text.c_str());
  }
  for (const Json::Value& event : Events()) {
    const char* key = event["function"] == "Track_ErrorAnalyze" ? "text" : "args";
    EXPECT_EQ(event[key], "before *** after http://***@host");
  }
  EXPECT_NE(LogText().find("detectURL:0] [HTTP] [resp:before *** after http://***@host] 200.\n"),
            std::string::npos);
  EXPECT_NE(LogText().find("Track_AddTraceApiLog:0] before *** after http://***@host\n"),
            std::string::npos);
  for (const std::string& secret : secrets) EXPECT_EQ(LogText().find(secret), std::string::npos);
}

TEST_F(TrackTest, WritesReadableLinesForInvalidUtf8AndLineBreaks) {
  ASSERT_EQ(Init(), 0);
  const UTEventRecord event = Event("a\xff\xfe\xc3\r\n{\"forged\":1}\n\x01");
  EXPECT_EQ(Track_AddUserTrack(&event), 0);
  const std::vector<Json::Value> events = Events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_NE(events[0]["args"].asString().find("\n{\"forged\":1}\n\x01"), std::string::npos);
}

TEST_F(TrackTest, OpensTheModuleLogOnlyWhenNobodyDid) {
  support::TempDir other;
  ASSERT_EQ(LogStream::InitLog("native_sdk", other.File("host.txt").c_str(), 100, 1, 2), 0);
  ASSERT_EQ(Init(), 0);
  ASSERT_EQ(Track_UpdateLogPath(2, 0, 2, m_dir.Path().c_str()), 0);
  Track_AddTraceApiLog(0, 7, "%s", "line");
  EXPECT_FALSE(std::filesystem::exists(m_dir.File("native_sdk.txt")));
  EXPECT_NE(support::ReadWholeFile(other.File("host.txt")).find("line"), std::string::npos);
}

TEST_F(TrackTest, MovesItsFilesWithTheLogPath) {
  ASSERT_EQ(Init(), 0);
  const std::string directory = m_dir.File("moved");  // made by the library
  ASSERT_EQ(Track_UpdateLogPath(LOGGER_LEVEL_INFO, 10, 1, directory.c_str()), 0);
  Track_AddTraceApiLog(0, 7, "%s", "line");
  EXPECT_EQ(Track_StartEvent("i", 1), 0);
  EXPECT_EQ(LogText(), "");
  EXPECT_EQ(EventText(), "");
  EXPECT_GT(std::filesystem::file_size(directory + "/native_sdk.txt"), 0U);
  EXPECT_GT(std::filesystem::file_size(directory + "/ut_events.jsonl"), 0U);
}

TEST_F(TrackTest, ReportsAnUnusableDirectoryAndGoesOn) {
  EXPECT_NE(InitUnifiedTrack(2, 1, 1, "", ""), 0);
  EXPECT_NE(InitUnifiedTrack(2, 1, 1, nullptr, nullptr), 0);
  EXPECT_NE(InitUnifiedTrack(2, 1, 1, m_dir.File("no/where").c_str(), ""), 0);
  const UTEventRecord event = Event("x");
  EXPECT_EQ(Track_AddUserTrack(&event), 0);
  EXPECT_EQ(Init(), 0);
  EXPECT_NE(Track_UpdateLogPath(2, 1, 1, m_dir.File("no/where").c_str()), 0);
  EXPECT_EQ(Track_AddUserTrack(&event), 0);
  EXPECT_EQ(Events().size(), 1U);
}

TEST_F(TrackTest, ReturnsTheScriptedResultOfInit) {
  track_ref_set_init_result(77);
  EXPECT_EQ(Init(), 77);
  EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
  track_ref_set_init_result(0);
  EXPECT_EQ(Init(), 0);
}

TEST_F(TrackTest, CallsNoRegisteredFunction) {
  setAddCacheFun(CountBatchAdd, CountQuery);
  SetErrTrackCallback(CountError);
  ASSERT_EQ(Init(), 0);
  Track_ErrorAnalyze("log_error", "text");
  Track_MsgDotCount(4);
  Track_MsgDotCount(-1);
  EXPECT_EQ(Track_UploadUserTrack(), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_EQ(g_called, 0);
  EXPECT_EQ(track_ref_callbacks().batchAdd, &CountBatchAdd);
  EXPECT_EQ(track_ref_callbacks().query, &CountQuery);
  EXPECT_EQ(track_ref_callbacks().onError, &CountError);
  EXPECT_EQ(track_ref_messages(4), 1U);
}

TEST_F(TrackTest, KeepsABoundedNumberOfRecords) {
  for (int i = 0; i < 1500; ++i) EXPECT_EQ(Track_ConfigCustomParam(i, nullptr), 0);
  std::vector<TrackRecord> records = track_ref_records();
  ASSERT_EQ(records.size(), 1000U);
  EXPECT_EQ(records.front().numbers.front().second, 500);
  const std::string large(2 * 1024 * 1024, 'x');
  EXPECT_EQ(MediaTrack_AddDataConfDotData(1, large.c_str(), false), 0);
  EXPECT_TRUE(track_ref_records().empty());
}

TEST_F(TrackTest, KeepsLinesWholeWhileThreadsTrackAndTheLibraryRestarts) {
  constexpr int kThreads = 3;
  constexpr int kEventsEach = 200;
  ASSERT_EQ(Init(), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([] {
      const UTEventRecord event = Event("from a thread");
      for (int i = 0; i < kEventsEach; ++i) EXPECT_EQ(Track_AddUserTrack(&event), 0);
    });
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Track_Uninit(), 0);
    EXPECT_EQ(Init(), 0);
  }
  for (std::thread& thread : threads) thread.join();
  for (const Json::Value& event : Events()) EXPECT_EQ(event["args"], "from a thread");
  EXPECT_EQ(track_ref_calls("Track_AddUserTrack"), std::uint64_t{kThreads * kEventsEach});
}

}  // namespace
