#include "CommonUtil.h"

#include <array>
#include <cstring>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "publicInc/CommonUtilManager.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/PublicUtil.h"

namespace commonutil {
namespace {

constexpr int kErrorLevel = 0;
constexpr int kWarningLevel = 1;
constexpr int kInfoLevel = 2;

// A manager of the test's own: the process's initialises once only.
class OwnManager : public CommonUtilManager {};

class CommonUtilTest : public testing::Test {
 protected:
  CommonUtilTest() { support::ResetPlatformDouble(); }

  tagZelUtilInitParam Param() const {
    tagZelUtilInitParam param = {};
    std::strcpy(param.logPath, m_dir.File("log").c_str());
    std::strcpy(param.dbPath, m_dir.Path().c_str());
    param.logLevel = 3;
    param.logSize = 100;
    param.fileCount = 4;
    return param;
  }

  support::TempDir m_dir;
  OwnManager m_manager;
};

TEST_F(CommonUtilTest, InitialisesInOrderAndOnceAndGoesOnWithoutTracking) {
  support::SetInitUnifiedTrackResult(9);
  EXPECT_EQ(m_manager.InitCommonUtil(Param(), nullptr), 0);
  EXPECT_EQ(m_manager.GetDBPath(), m_dir.Path());
  EXPECT_EQ(support::SensitiveWords().at(0), m_dir.Path());
  const auto lines = support::LogLines();
  ASSERT_GE(lines.size(), 2U);
  const std::string opening =
      "Init, logPath = " + m_dir.File("log") +
      ", logLevel = 3, logSize = 100, fileCount = 4 , dbPath = " + m_dir.Path() + " build time is ";
  EXPECT_EQ(lines[0].text.compare(0, opening.size(), opening), 0) << lines[0].text;
  EXPECT_EQ(lines[0].level, kInfoLevel);
  EXPECT_EQ(lines[1].text.rfind("build at version: ", 0), 0U);
  EXPECT_EQ(support::CountLog("UTManager init unified track err:9", kErrorLevel), 1);
  std::vector<std::string> reported;
  for (const support::TrackCall& call : support::TrackCalls()) {
    if (call.function == "Track_AddUserTrack") reported = call.texts;
  }
  EXPECT_EQ(reported, (std::vector<std::string>{"1", "ut_event_sdk_init_db", "(null)", "(null)",
                                                R"({"errorCode":0})"}));

  support::ClearLog();
  EXPECT_EQ(m_manager.InitCommonUtil(Param(), nullptr), 2);
  EXPECT_TRUE(support::LogTexts().empty());
}

TEST_F(CommonUtilTest, AFailedDatabaseGivesOneAndStaysTheOnlyTry) {
  support::ZormScript script;
  script.stopCodes = {77};
  support::SetZormScript(script);
  tagZelUtilInitParam param = Param();
  std::memset(param.logPath, 'l', sizeof(param.logPath));  // without its NUL
  EXPECT_EQ(UtilInitParam(param).logPath, std::string(sizeof(param.logPath), 'l'));
  EXPECT_EQ(m_manager.InitCommonUtil(Param(), nullptr), 1);
  EXPECT_EQ(support::CountLog("InitDB err, ret = 77", kErrorLevel), 1);
  EXPECT_EQ(m_manager.InitCommonUtil(Param(), nullptr), 2);
}

TEST_F(CommonUtilTest, TheLogPathMovesWithTheLevelOfTheInitialisation) {
  ASSERT_EQ(m_manager.InitCommonUtil(Param(), nullptr), 0);
  support::ClearTrack();
  (void)m_manager.UpdateLogPath("/elsewhere/", LOGGER_LEVEL_ERROR);
  const auto calls = support::TrackCalls();
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].function, "Track_UpdateLogPath");
  EXPECT_EQ(calls[0].numbers, (std::vector<long long>{3, 100, 4}));
  EXPECT_EQ(calls[0].texts, std::vector<std::string>{"/elsewhere/"});
}

TEST_F(CommonUtilTest, DeviceGuidReportsItsLengthEvenWhenItDoesNotFit) {
  CommonUtil& facade = CommonUtil::getInst();
  std::array<char, 8> buffer;
  int length = static_cast<int>(buffer.size());
  facade.SetDeviceGuid("");
  facade.GetDeviceGuid(buffer.data(), length);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(support::CountLog("m_sDeviceGuid is empty.", kWarningLevel), 1);

  facade.SetDeviceGuid("0123456");
  facade.SetDeviceGuid(nullptr);
  length = 8;
  facade.GetDeviceGuid(buffer.data(), length);
  EXPECT_STREQ(buffer.data(), "0123456");
  EXPECT_EQ(length, 7);

  for (int tooSmall : {7, 0, -1}) {
    support::ClearLog();
    length = tooSmall;
    facade.GetDeviceGuid(buffer.data(), length);
    EXPECT_EQ(length, 7);
    EXPECT_EQ(support::CountLogPrefix("secure function return err: ", kErrorLevel), 1);
  }
  length = 3;
  facade.GetDeviceGuid(nullptr, length);
  EXPECT_EQ(length, 3);
}

}  // namespace
}  // namespace commonutil
