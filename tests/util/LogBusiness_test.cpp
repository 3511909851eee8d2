#include "util/LogBusiness.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/LogBridges.h"

namespace commonutil {
namespace {

namespace fs = std::filesystem;

constexpr char kBridgeFile[] = "commonutil/util/PublicUtil";

class LogBusinessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogBusiness::SetLogPath("", LOGGER_LEVEL_INFO);  // whatever an earlier test has set
    support::ResetPlatformDouble();
  }
  void TearDown() override { support::ResetPlatformDouble(); }

  support::TempDir m_dir;
};

TEST_F(LogBusinessTest, SetLogPathReopensEveryModuleWithItsLimits) {
  LogBusiness::SetLogPath("/tmp/logs", LOGGER_LEVEL_DEBUG);
  const std::vector<support::LogOpening> expected = {
      {"orb_socket", "/tmp/logsorb_socket.txt", 3072, 2, 3},
      {"zel_ffmpeg", "/tmp/logszel_ffmpeg.txt", 512, 0, 3},
      {"zel_timer", "/tmp/logszel_timer.txt", 205, 1, 3},
      {"native_sdk_frequency", "/tmp/logsnative_sdk_frequency.txt", 5120, 2, 3},
      {"native_sdk", "/tmp/logsnative_sdk.txt", 5120, 7, 2},
  };
  const std::vector<support::LogOpening> opened = support::LogOpenings();
  const std::vector<support::LogLine> lines = support::LogLines();
  ASSERT_EQ(opened.size(), expected.size());
  ASSERT_EQ(lines.size(), expected.size());
  EXPECT_EQ(lines[0].text, "SetLogPath. [/*******s]");
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(opened[i].module, expected[i].module);
    EXPECT_EQ(opened[i].file, expected[i].file);
    EXPECT_EQ(opened[i].sizeKb, expected[i].sizeKb);
    EXPECT_EQ(opened[i].oldFiles, expected[i].oldFiles);
    EXPECT_EQ(opened[i].level, expected[i].level);
    EXPECT_EQ(support::LogClosings().at(i), expected[i].module);
    if (i == 0) continue;
    EXPECT_EQ(lines[i].module, expected[i - 1].module);
    EXPECT_EQ(lines[i].text, "Init module log. level: 3");
  }
  EXPECT_EQ(LogBusiness::GetLogPath(), "/tmp/logs");

  const std::string tooLong = "/" + std::string(300, 'd') + "/";  // is cut
  LogBusiness::SetLogPath(tooLong, LOGGER_LEVEL_INFO);
  EXPECT_EQ(support::LogOpenings().back().file, tooLong.substr(0, 255));
}

TEST_F(LogBusinessTest, AnUnchangedPathIsOnlyLogged) {
  LogBusiness::SetLogPath("/tmp/a/", LOGGER_LEVEL_ERROR);
  support::ResetPlatformDouble();
  LogBusiness::SetLogPath("/tmp/a/", LOGGER_LEVEL_INFO);
  EXPECT_EQ(support::LogTexts(), std::vector<std::string>{"SetLogPath. [/*****/]"});
  EXPECT_TRUE(support::LogOpenings().empty());
  EXPECT_TRUE(support::NetCalls().empty());

  LogBusiness::SetLogPath("", LOGGER_LEVEL_INFO);
  EXPECT_EQ(LogBusiness::GetLogPath(), "");
  EXPECT_TRUE(support::LogOpenings().empty());
  EXPECT_TRUE(support::LogClosings().empty());
}

TEST_F(LogBusinessTest, TheLevelIsPassedToDnsBeforeTheBridgesAreRegistered) {
  for (const auto& [level, dnsLevel] : {std::pair(0, 3), {1, 4}, {2, 5}, {3, 5}, {-7, 5}}) {
    EXPECT_EQ(LogBusiness::GetDnsLogLeveFromLogger(static_cast<tagLoggerLevel>(level)), dnsLevel);
  }

  LogBusiness::SetLogPath("/tmp/b/", LOGGER_LEVEL_WARNING);
  std::string calls;
  for (const support::PlatformCall& call : support::NetCalls()) {
    calls += call.function + "(" + std::to_string(call.numbers.at(0)) + ") ";
  }
  EXPECT_EQ(calls,
            "orb_dns_set_log_level(4) orb_dns_register_log_func(1) orb_websocket_reg_log_fn(1) ");
  ASSERT_EQ(support::CountTrack("SetErrTrackCallback"), 1);
  PRAX_Ref_EmitTimerTrace(PRAX_TIMER_LOG_1, "from the timer");
  PRAX_Ref_EmitOsTrace(PRAX_OS_LOG_1, "from the adapter");
  EXPECT_EQ(support::CountLog("from the timer"), 1);
  EXPECT_EQ(support::CountLog("from the adapter"), 1);
}

TEST_F(LogBusinessTest, GenerateLogPathMakesOneLevelAndEndsInASlash) {
  LogBusiness::SetLogPath(m_dir.Path(), LOGGER_LEVEL_INFO);
  EXPECT_EQ(LogBusiness::GenerateLogPath("audit"), m_dir.File("audit/"));
  EXPECT_EQ(fs::status(m_dir.File("audit")).permissions() & fs::perms::owner_all,
            fs::perms::owner_all);
  LogBusiness::SetLogPath(m_dir.Path() + "/", LOGGER_LEVEL_INFO);
  EXPECT_EQ(LogBusiness::GenerateLogPath("audit"), m_dir.File("audit/"));
  EXPECT_EQ(LogBusiness::GenerateLogPath("two/levels"), m_dir.File("two/levels/"));
  EXPECT_FALSE(fs::exists(m_dir.File("two")));

  // Without a log directory the name stands below the root; this one is there already.
  LogBusiness::SetLogPath("", LOGGER_LEVEL_INFO);
  EXPECT_EQ(LogBusiness::GenerateLogPath(m_dir.Path().substr(1)), m_dir.Path() + "/");
}

constexpr char kText[] = "100% text";

TEST_F(LogBusinessTest, BridgesWriteTheTextUnchanged) {
  const struct {
    void (*send)();
    const char* module;
    int level;
    int checkLevel;
    const char* function;  // empty: the line has no place at all
  } rows[] = {
      {[] { SupportCommonLog(kText); }, "native_sdk", 2, 1, "SupportCommonLog"},
      {[] { TimerDotLog(PRAX_TIMER_LOG_1, kText); }, "native_sdk_frequency", 2, 0, "TimerDotLog"},
      {[] { TimerDotLog(PRAX_TIMER_LOG_2, kText); }, "native_sdk_frequency", 2, 0, "TimerDotLog"},
      {[] { TimerDotLog(PRAX_TIMER_LOG_3, kText); }, "zel_timer", 2, 0, ""},
      {[] { OsAdapaterDotLog(PRAX_OS_LOG_0, kText); }, "zel_osadapter", 2, 0, ""},
      {[] { OsAdapaterDotLog(PRAX_OS_LOG_1, kText); }, "native_sdk", 2, 0, "OsAdapaterDotLog"},
      {[] { OsAdapaterDotLog(PRAX_OS_LOG_2, kText); }, "native_sdk", 1, 0, "OsAdapaterDotLog"},
      {[] { OsAdapaterDotLog(PRAX_OS_LOG_3, kText); }, "native_sdk", 0, 0, "OsAdapaterDotLog"},
  };
  for (const auto& row : rows) {
    support::ClearLog();
    row.send();
    const std::vector<support::LogLine> lines = support::LogLines();
    ASSERT_EQ(lines.size(), 1U);
    const bool hasPlace = *row.function != '\0';
    EXPECT_EQ(lines[0].module, row.module);
    EXPECT_EQ(lines[0].level, row.level);
    EXPECT_EQ(lines[0].checkLevel, row.checkLevel);
    EXPECT_EQ(lines[0].function, row.function);
    EXPECT_EQ(lines[0].file, hasPlace ? kBridgeFile : "");
    EXPECT_EQ(lines[0].text, kText);
  }
  for (const int level : {-1, 4, 1000}) {  // levels that nobody knows write nothing
    support::ClearLog();
    TimerDotLog(static_cast<_PRAX_E_TimerLogLv>(level), "text");
    OsAdapaterDotLog(static_cast<_PRAX_OS_LOG_LEVEL>(level), "text");
    EXPECT_TRUE(support::LogLines().empty()) << level;
  }
}

TEST_F(LogBusinessTest, ErrorsAndWebSocketTextsGoToTheTrackingLibrary) {
  TimerDotLog(PRAX_TIMER_LOG_ERROR, "late");
  EXPECT_EQ(support::CountLog("late", 2), 1);
  WebSocketCommonLog("100% frame");
  LogDotLog("disk full");
  const std::vector<support::TrackCall> calls = support::TrackCalls();
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].texts, (std::vector<std::string>{"timer_error", "late"}));
  EXPECT_EQ(calls[1].function, "Track_AddTraceApiLog");
  EXPECT_EQ(calls[1].texts, std::vector<std::string>{"100% frame"});
  EXPECT_EQ(calls[1].numbers, (std::vector<long long>{0, 7}));
  EXPECT_EQ(calls[2].texts, (std::vector<std::string>{"log_error", "disk full"}));
}

}  // namespace
}  // namespace commonutil
