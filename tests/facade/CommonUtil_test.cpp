#include "CommonUtil.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "publicInc/CommonUtilManager.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/Log.h"

namespace commonutil {
namespace {

using Texts = std::vector<std::string>;

// A manager of the test's own: the process's initialises once only.
class OwnManager : public CommonUtilManager {};

class CommonUtilTest : public testing::Test {
 protected:
  CommonUtilTest() {
    support::ResetPlatformDouble();
    std::memset(m_param.logPath, '/', sizeof(m_param.logPath));  // without its NUL
    std::strcpy(m_param.dbPath, m_dir.Path().c_str());
    m_param.logLevel = 3;
    m_param.logSize = 100;
    m_param.fileCount = 4;
  }

  support::TempDir m_dir;
  tagZelUtilInitParam m_param = {};
  OwnManager m_manager;
};

TEST_F(CommonUtilTest, InitialisesOnceAndGoesOnWithoutTracking) {
  support::SetInitUnifiedTrackResult(9);
  EXPECT_EQ(m_manager.InitCommonUtil(m_param, nullptr), 0);
  EXPECT_EQ(m_manager.GetDBPath(), m_dir.Path());
  EXPECT_EQ(support::SensitiveWords().at(0), m_dir.Path());
  EXPECT_EQ(support::LogTexts().at(0).find(
                "Init, logPath = " + std::string(sizeof(m_param.logPath), '/') +
                ", logLevel = 3, logSize = 100, fileCount = 4 , dbPath = " + m_dir.Path() +
                " build time is "),
            0U);
  EXPECT_EQ(support::LogTexts().at(1).find("build at version: "), 0U);
  EXPECT_EQ(support::CountLog("UTManager init unified track err:9", kError), 1);
  const support::TrackCall reported = support::TrackCalls().back();
  EXPECT_EQ(reported.function, "Track_AddUserTrack");
  EXPECT_EQ(reported.texts,
            (Texts{"1", "ut_event_sdk_init_db", "(null)", "(null)", R"({"errorCode":0})"}));

  (void)m_manager.UpdateLogPath("/elsewhere/", LOGGER_LEVEL_ERROR);  // the level stays
  const support::TrackCall moved = support::TrackCalls().back();
  EXPECT_EQ(moved.function, "Track_UpdateLogPath");
  EXPECT_EQ(moved.numbers, (std::vector<long long>{3, 100, 4}));
  EXPECT_EQ(moved.texts, Texts{"/elsewhere/"});
  support::ClearLog();
  EXPECT_EQ(m_manager.InitCommonUtil(m_param, nullptr), 2);
  EXPECT_TRUE(support::LogTexts().empty());
}

TEST_F(CommonUtilTest, AFailedDatabaseGivesOneAndStaysTheOnlyTry) {
  support::SetZormScript({{}, {77}, 0, 0});
  EXPECT_EQ(m_manager.InitCommonUtil(m_param, nullptr), 1);
  EXPECT_EQ(support::CountLog("InitDB err, ret = 77", kError), 1);
  EXPECT_EQ(m_manager.InitCommonUtil(m_param, nullptr), 2);
}

TEST_F(CommonUtilTest, DeviceGuidReportsItsLengthEvenWhenItDoesNotFit) {
  CommonUtil& facade = CommonUtil::getInst();
  facade.SetDeviceGuid("0123456");
  facade.SetDeviceGuid(nullptr);
  for (int length : {-1, 0, 7, 8}) {
    const bool fits = length == 8;
    support::ClearLog();
    char buffer[8] = "before";
    facade.GetDeviceGuid(buffer, length);
    EXPECT_EQ(length, 7);
    EXPECT_EQ(std::strcmp(buffer, "0123456") == 0, fits);
    EXPECT_EQ(support::CountLogPrefix("secure function return err: ", kError), fits ? 0 : 1);
    facade.GetDeviceGuid(nullptr, length);
  }
}

}  // namespace
}  // namespace commonutil
