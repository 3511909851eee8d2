#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommonUtil.h"
#include "publicInc/CommonUtilManager.h"
#include "publicInc/ResultCode.h"
#include "support/PlatformDouble.h"

// The tests' own layout of a sub-event.
struct commonutil::tagZelSubEventParam {
  int number;
};

namespace {

using commonutil::CommonUtil;
using support::TrackCall;
using Texts = std::vector<std::string>;
using Numbers = std::vector<long long>;

constexpr int kTrackResult = 21;

class CommonUtilTrackTest : public testing::Test {
 protected:
  CommonUtilTrackTest() {
    support::ResetPlatformDouble();
    support::SetTrackResult(kTrackResult);
  }

  static TrackCall Last() {
    const std::vector<TrackCall> calls = support::TrackCalls();
    return calls.empty() ? TrackCall{} : calls.back();
  }

  CommonUtil& m_facade = CommonUtil::getInst();
};

TEST_F(CommonUtilTrackTest, AnIndexHasATextAndALength) {
  const commonutil::tagZelUtilSpecialParam event = {};
  const commonutil::tagZelSubEventParam sub = {};
  for (const char* index : {static_cast<const char*>(nullptr), "x"}) {
    const unsigned long length = index == nullptr ? 5 : 0;
    EXPECT_EQ(m_facade.UTStartEvent(index, length), commonutil::kBadParameter);
    EXPECT_EQ(m_facade.UTFinishEvent(index, length, event), commonutil::kBadParameter);
    EXPECT_EQ(m_facade.UTAddSubEvent(index, length, sub), commonutil::kBadParameter);
  }
  EXPECT_EQ(support::CountLogPrefix("params error! indexLen: "), 2);
  EXPECT_EQ(support::CountLog("params error! indexLen: 0", 0), 1);
  EXPECT_TRUE(support::TrackCalls().empty());
}

TEST_F(CommonUtilTrackTest, EventsReachTrackingWithTheirTextsAlsoWithoutAnEnd) {
  commonutil::tagZelUtilSpecialParam event = {"id", "1", "2", "3", "{}", 77};
  EXPECT_EQ(m_facade.UTAddUserTrack(event), kTrackResult);
  EXPECT_EQ(Last().texts, (Texts{"id", "1", "2", "3", "{}"}));
  EXPECT_EQ(Last().numbers, Numbers{0});
  EXPECT_EQ(m_facade.UTFinishEvent("index", 3, event), kTrackResult);
  EXPECT_EQ(Last().texts, (Texts{"ind", "id", "1", "2", "3", "{}"}));
  EXPECT_EQ(Last().numbers, (Numbers{3, 77}));
  std::fill(std::begin(event.args), std::end(event.args), 'a');
  std::fill(std::begin(event.eventId), std::end(event.eventId), 'e');
  EXPECT_EQ(m_facade.UTAddMediaTrack(event, true), kTrackResult);
  EXPECT_EQ(Last().texts[0], std::string(16, 'e'));
  EXPECT_EQ(Last().texts[4], std::string(8192, 'a'));
  EXPECT_EQ(Last().numbers, (Numbers{0, 1}));
  EXPECT_EQ(m_facade.UTUploadData(), kTrackResult);
  EXPECT_EQ(support::CountLog("[UT] end or leave conf, upload", 2), 1);
  EXPECT_EQ(m_facade.UTConfigCustomParam({-1, {0, 0}}), kTrackResult);
  EXPECT_EQ(Last().numbers, (Numbers{-1, 1}));
  EXPECT_EQ(m_facade.UTSetCpuAndMemoryParam({{1, 2, 3}, "text"}), kTrackResult);
  EXPECT_EQ(Last().texts, Texts{"text"});
}

TEST_F(CommonUtilTrackTest, PublicParametersAreNarrowedAndReplaceTheGuid) {
  commonutil::tagZelUtilPublicParam param = {};
  const auto fill = [](auto& field, std::size_t length) {
    std::fill_n(std::begin(field), length, 'x');
  };
  fill(param.deviceId, 127);
  fill(param.cpu, 64);            // one too long
  fill(param.osVersion, 31);      // fits
  fill(param.appId, 64);          // no NUL, and fits
  fill(param.accessSubtype, 16);  // no NUL, and does not fit
  EXPECT_EQ(m_facade.UTConfigPublicParam(param), 0);
  const Texts texts = Last().texts;
  EXPECT_EQ(texts[1], std::string(127, 'x'));
  EXPECT_EQ(texts[4], "");
  EXPECT_EQ(texts[6], std::string(64, 'x'));
  EXPECT_EQ(texts[9], std::string(31, 'x'));
  EXPECT_EQ(texts[12], "");
  EXPECT_EQ(support::CountLogPrefix("secure function return err: ", 0), 1);  // one sum
  EXPECT_EQ(commonutil::CommonUtilManager::GetInstance().GetDeviceGuid(), texts[1]);

  EXPECT_EQ(m_facade.UTConfigPublicParam({}), 0);
  EXPECT_EQ(support::CountLog("m_sDeviceGuid is empty."), 1);
  EXPECT_EQ(support::CountLog("[UT] channelId:access: , version: "), 2);
}

TEST_F(CommonUtilTrackTest, UploadParametersAreLoggedWithoutTheirSecrets) {
  commonutil::UTUpLoadParam("acc", "tok", 1, "addr", "ca", 2, 3, "proxy", "pacc", "secret")
      .ToInfoLog();
  EXPECT_EQ(support::CountLog("[UT] uploadParam , account = acc , token =  , serverPentraPort = 1 "
                              ", serverPentraAddress = addr , caCertPath = ca , tlsMode = 2 , "
                              "proxyPort = 3 , proxyAddress = proxy , proxyAccount = pacc",
                              2),
            1);
  commonutil::UTPublicSdkParam("u", "a", "g", "s", "5", "6", "7", "8", "9", "10").ToInfoLog();
  EXPECT_EQ(support::CountLog("[UT] UTPublicSdkParam, uuid = u , account = a , gantryIp = g , "
                              "sbcIp = s",
                              2),
            1);
}

}  // namespace
