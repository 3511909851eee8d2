// What the service's commands leave untried of the calls into tracking.
#include <algorithm>
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
using Texts = std::vector<std::string>;
using Numbers = std::vector<long long>;

class CommonUtilTrackTest : public testing::Test {
 protected:
  CommonUtilTrackTest() {
    support::ResetPlatformDouble();
    support::SetTrackResult(21);
  }

  static support::TrackCall Last() { return support::TrackCalls().back(); }

  CommonUtil& m_facade = CommonUtil::getInst();
};

TEST_F(CommonUtilTrackTest, AnIndexHasATextAndALength) {
  const commonutil::tagZelSubEventParam sub = {};
  for (const auto& [index, length] :
       {std::pair<const char*, unsigned long>{nullptr, 5}, {"x", 0}}) {
    EXPECT_EQ(m_facade.UTStartEvent(index, length), commonutil::kBadParameter);
    EXPECT_EQ(m_facade.UTFinishEvent(index, length, {}), commonutil::kBadParameter);
    EXPECT_EQ(m_facade.UTAddSubEvent(index, length, sub), commonutil::kBadParameter);
  }
  EXPECT_EQ(support::CountLogPrefix("params error! indexLen: "), 2);
  EXPECT_TRUE(support::TrackCalls().empty());
}

TEST_F(CommonUtilTrackTest, EventsReachTrackingWithTheirTextsAlsoWithoutAnEnd) {
  commonutil::tagZelUtilSpecialParam event = {"id", "1", "2", "3", "{}", 77};
  EXPECT_EQ(m_facade.UTFinishEvent("index", 3, event), 21);
  EXPECT_EQ(Last().texts, (Texts{"ind", "id", "1", "2", "3", "{}"}));
  EXPECT_EQ(Last().numbers, (Numbers{3, 77}));
  std::fill(std::begin(event.args), std::end(event.args), 'a');
  EXPECT_EQ(m_facade.UTAddMediaTrack(event, true), 21);
  EXPECT_EQ(Last().texts, (Texts{"id", "1", "2", "3", std::string(8192, 'a')}));
  EXPECT_EQ(Last().numbers, (Numbers{0, 1}));
  EXPECT_EQ(m_facade.UTSetCpuAndMemoryParam({{1, 2, 3}, "text"}), 21);
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
  const std::string guid(127, 'x');
  const std::string osVersion(31, 'x');
  EXPECT_EQ(Last().texts,
            (Texts{"", guid, "", "", "", "", std::string(64, 'x'), "", "", osVersion, "", "", ""}));
  EXPECT_EQ(support::CountLogPrefix("secure function return err: ", 0), 1);  // one sum
  EXPECT_EQ(commonutil::CommonUtilManager::GetInstance().GetDeviceGuid(), guid);
  EXPECT_EQ(m_facade.UTConfigPublicParam({}), 0);
  EXPECT_EQ(support::CountLog("m_sDeviceGuid is empty."), 1);
}

TEST_F(CommonUtilTrackTest, UploadParametersAreLoggedWithoutTheirSecrets) {
  commonutil::UTUpLoadParam("acc", "tok", 1, "addr", "ca", 2, 3, "proxy", "pacc", "secret")
      .ToInfoLog();
  commonutil::UTPublicSdkParam("u", "a", "g", "s", "5", "6", "7", "8", "9", "10").ToInfoLog();
  EXPECT_EQ(support::LogTexts(),
            (Texts{"[UT] uploadParam , account = acc , token =  , serverPentraPort = 1 , "
                   "serverPentraAddress = addr , caCertPath = ca , tlsMode = 2 , proxyPort = 3 , "
                   "proxyAddress = proxy , proxyAccount = pacc",
                   "[UT] UTPublicSdkParam, uuid = u , account = a , gantryIp = g , sbcIp = s"}));
}

}  // namespace
