#include "util/LogBusiness.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/LogBridges.h"

namespace commonutil {
namespace {

using Texts = std::vector<std::string>;

class LogBusinessTest : public ::testing::Test {
 protected:
  LogBusinessTest() {
    LogBusiness::SetLogPath("", LOGGER_LEVEL_INFO);  // whatever an earlier test has set
    support::ResetPlatformDouble();
  }
  ~LogBusinessTest() override { support::ResetPlatformDouble(); }
};

TEST_F(LogBusinessTest, AnotherPathReopensEveryModuleWithItsLimits) {
  LogBusiness::SetLogPath("/tmp/logs", LOGGER_LEVEL_DEBUG);
  EXPECT_EQ(support::LogModules(),
            (Texts{"close orb_socket", "open orb_socket /tmp/logsorb_socket.txt 3072 2 3",
                   "close zel_ffmpeg", "open zel_ffmpeg /tmp/logszel_ffmpeg.txt 512 0 3",
                   "close zel_timer", "open zel_timer /tmp/logszel_timer.txt 205 1 3",
                   "close native_sdk_frequency",
                   "open native_sdk_frequency /tmp/logsnative_sdk_frequency.txt 5120 2 3",
                   "close native_sdk", "open native_sdk /tmp/logsnative_sdk.txt 5120 7 2"}));
  const std::vector<support::LogLine> lines = support::LogLines();
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[0].text, "SetLogPath. [/***]");
  EXPECT_EQ(lines[4].module, "native_sdk_frequency");
  EXPECT_EQ(lines[4].text, "Init module log. level: 3");

  LogBusiness::SetLogPath("/tmp/logs", LOGGER_LEVEL_INFO);  // unchanged: is only logged
  LogBusiness::SetLogPath("", LOGGER_LEVEL_INFO);
  EXPECT_EQ(LogBusiness::GetLogPath(), "");
  EXPECT_EQ(support::LogModules().size(), 10U);
  EXPECT_EQ(support::CountLogPrefix("SetLogPath. ["), 3);

  const std::string tooLong = "/" + std::string(300, 'd') + "/";  // is cut
  LogBusiness::SetLogPath(tooLong, LOGGER_LEVEL_INFO);
  EXPECT_EQ(support::LogModules().back(),
            "open native_sdk " + tooLong.substr(0, 255) + " 5120 7 2");
}

TEST_F(LogBusinessTest, TheLevelIsPassedToDnsBeforeTheBridgesAreRegistered) {
  for (const auto& [level, dnsLevel] : {std::pair(0, 3), {1, 4}, {2, 5}, {-7, 5}}) {
    EXPECT_EQ(LogBusiness::GetDnsLogLeveFromLogger(static_cast<tagLoggerLevel>(level)), dnsLevel);
  }
  LogBusiness::SetLogPath("/tmp/b/", LOGGER_LEVEL_WARNING);
  std::string calls;
  for (const support::PlatformCall& call : support::NetCalls()) {
    calls += call.function + "(" + std::to_string(call.numbers.at(0)) + ") ";
  }
  EXPECT_EQ(calls,
            "orb_dns_set_log_level(4) orb_dns_register_log_func(1) orb_websocket_reg_log_fn(1) ");
  EXPECT_EQ(support::CountTrack("SetErrTrackCallback"), 1);
  PRAX_Ref_EmitTimerTrace(PRAX_TIMER_LOG_1, "from the timer");
  PRAX_Ref_EmitOsTrace(PRAX_OS_LOG_1, "from the adapter");
  EXPECT_EQ(support::CountLogPrefix("from the "), 2);
}

TEST_F(LogBusinessTest, GenerateLogPathMakesOneLevelAndEndsInASlash) {
  const support::TempDir dir;
  for (const char* end : {"", "/"}) {
    LogBusiness::SetLogPath(dir.Path() + end, LOGGER_LEVEL_INFO);
    EXPECT_EQ(LogBusiness::GenerateLogPath("audit"), dir.File("audit/"));
    support::WriteWholeFile(dir.File("audit/file"), "x");
  }
  EXPECT_EQ(LogBusiness::GenerateLogPath("two/levels"), dir.File("two/levels/"));
  EXPECT_FALSE(std::filesystem::exists(dir.File("two")));
  // Without a log directory the name stands below the root; this one is there already.
  LogBusiness::SetLogPath("", LOGGER_LEVEL_INFO);
  EXPECT_EQ(LogBusiness::GenerateLogPath(dir.Path().substr(1)), dir.Path() + "/");
}

TEST_F(LogBusinessTest, BridgesWriteTheTextUnchangedAndNothingForLevelsThatNobodyKnows) {
  constexpr char kText[] = "100% text";
  SupportCommonLog(kText);
  for (int level = -1; level <= 4; ++level) {
    TimerDotLog(static_cast<_PRAX_E_TimerLogLv>(level), kText);
    OsAdapaterDotLog(static_cast<_PRAX_OS_LOG_LEVEL>(level), kText);
  }
  Texts lines;
  for (const support::LogLine& line : support::LogLines()) {
    EXPECT_EQ(line.text, kText);
    EXPECT_EQ(line.file, line.function.empty() ? "" : "commonutil/util/PublicUtil");
    lines.push_back(line.module + " " + std::to_string(line.level) + " " +
                    std::to_string(line.checkLevel) + " " + line.function);
  }
  EXPECT_EQ(lines, (Texts{"native_sdk 2 1 SupportCommonLog", "native_sdk_frequency 2 0 TimerDotLog",
                          "zel_osadapter 2 0 ", "native_sdk_frequency 2 0 TimerDotLog",
                          "native_sdk 2 0 OsAdapaterDotLog", "native_sdk_frequency 2 0 TimerDotLog",
                          "native_sdk 1 0 OsAdapaterDotLog", "zel_timer 2 0 ",
                          "native_sdk 0 0 OsAdapaterDotLog"}));
}

TEST_F(LogBusinessTest, ErrorsAndWebSocketTextsGoToTheTrackingLibrary) {
  TimerDotLog(PRAX_TIMER_LOG_ERROR, "late");
  WebSocketCommonLog("100% frame");
  LogDotLog("disk full");
  const std::vector<support::TrackCall> calls = support::TrackCalls();
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].texts, (Texts{"timer_error", "late"}));
  EXPECT_EQ(calls[1].function, "Track_AddTraceApiLog");
  EXPECT_EQ(calls[1].texts, Texts{"100% frame"});
  EXPECT_EQ(calls[1].numbers, (std::vector<long long>{0, 7}));
  EXPECT_EQ(calls[2].texts, (Texts{"log_error", "disk full"}));
}

}  // namespace
}  // namespace commonutil
