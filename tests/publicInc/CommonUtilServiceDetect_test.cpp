// What the network tools report becomes notifications of the process's service.

#include "publicInc/ServiceHost.h"
#include "publicInc/ServiceTest.h"
#include "zel_platform/nettools.h"

namespace {

using support::Parse;

class DetectTest : public support::ServiceTest {
 protected:
  DetectTest() : ServiceTest(commonutil::ServiceHost::GetInst().PinOrCreate()) {}
};

TEST_F(DetectTest, ReportsOfServersAndPorts) {
  const tagNET_DETECT_PROCESS_RESULT net = {-3, 1, 4, 2, 10, 20, 5, 30, nullptr};
  CommonUtilService::onNotifyNetDetectResult(&net);
  EXPECT_EQ(Next(), Parse(R"({"description":"COMMONUTIL_E_EVENT_ON_NET_DETECT_RESULT","notify":3,
      "sno":-3,"param":{"current_level":1,"total_level":4,"result":2,"average_delay":10,
      "max_delay":20,"min_delay":5,"discard":30}})"));
  tagPORT_DETECT_RESULT port = {8, {}};
  CommonUtilService::onNotifyPortDetectResult(&port);
  EXPECT_EQ(Next()["param"], Parse(R"({"result":0})"));
  port.ports = {{443, 1, 200, {}}, {80, 1, 3, {}}};
  CommonUtilService::onNotifyPortDetectResult(&port);
  EXPECT_EQ(Next(), Parse(R"({"description":"COMMONUTIL_E_EVENT_ON_PORT_DETECT_RESULT","notify":4,
      "sno":8,"param":{"result":200}})"));
  CommonUtilService::onNotifyNetDetectResult(nullptr);
  CommonUtilService::onNotifyPortDetectResult(nullptr);
  EXPECT_TRUE(Next().isNull());
}

TEST_F(DetectTest, AFirewallReportHasSevenEntriesAndOneVerdict) {
  using Results = std::vector<unsigned char>;
  const std::pair<Results, const char*> cases[] = {{{0, 0, 0, 0, 0, 1, 1}, R"({"isProxy":"0"})"},
                                                   {{1, 0, 1, 1, 1, 0, 0}, R"({"isProxy":"1"})"},
                                                   {{0, 0, 0, 0, 1, 0, 0}, R"({"isProxy":"1"})"},
                                                   {{0, 1, 0, 1, 1, 0, 0}, R"({"isProxy":"2"})"},
                                                   {{0, 1, 1, 0, 0, 0, 0}, R"({"isProxy":"3"})"},
                                                   {{0, 1, 1, 1, 0, 0, 0}, R"({"isProxy":"4"})"},
                                                   {{0, 1, 1, 0, 0, 0}, nullptr},
                                                   {{0, 1, 1, 0, 0, 0, 0, 0}, nullptr}};
  for (const auto& [results, param] : cases) {
    std::vector<tagFW_MULTI_DETECT_INFO> entries;
    for (const unsigned char result : results) entries.push_back({result, 1, 9, "a"});
    CommonUtilService::onNotifyFwDetect(0, 0, 0, entries);  // entries of type 9 add nothing
    const Json::Value message = Next();
    EXPECT_EQ(message["param"], param == nullptr ? Json::Value() : Parse(param));
    EXPECT_EQ(message.isNull(), param == nullptr);
  }
  // Keys go by type, and the last entry of a type stays.
  CommonUtilService::onNotifyFwDetect(1, 2, 3,
                                      {{1, 443, 0, "192.0.2.7"},
                                       {2, 1, 4, "m"},
                                       {3, 0, 3, ""},
                                       {4, 65535, 1, "n"},
                                       {5, 7, 2, "::1"},
                                       {6, 8, 0, "last"},
                                       {7, 9, 5, "skipped"}});
  EXPECT_EQ(Next(), Parse(R"({"description":"COMMONUTIL_E_EVENT_ON_FW_DETECT_RESULT","notify":5,
      "param":{"isProxy":"4","publicIP":"last:8","publicRet":6,"normalMedia":"m:1",
      "normalMediaRet":2,"specPort":":0","specPortRet":3,"normalIP":"n:65535","normalRet":4,
      "specIP":"::1:7","specRet":5}})"));
}

TEST_F(DetectTest, SiteReportsNameTheBestSiteOrOnlyTheFailure) {
  CommonUtilService::onNotifySiteDetect(0, 5, 0, {{1, 1}});
  EXPECT_EQ(Next(), Parse(R"({"result":5})"));
  CommonUtilService::onNotifySiteDetect(0, 0, 0, {{7, -10}, {65535, 30}, {2, 29}});
  EXPECT_EQ(Next(), Parse(R"({"description":"COMMONUTIL_E_EVENT_ON_SITE_DETECT_RESULT","notify":6,
      "param":{"result":0,"priorityIndex":65535}})"));
  CommonUtilService::onNotifySiteDetect(0, 0, 0, {});
  EXPECT_EQ(Next()["param"]["priorityIndex"].asInt(), 0);

  CommonUtilService::onNotifyOptSiteDetect(0, 4000000000U, 0, {});
  EXPECT_EQ(Next(), Parse(R"({"result":4000000000})"));
  CommonUtilService::onNotifyOptSiteDetect(0, 0, 1, {});
  EXPECT_EQ(Next()["param"], Parse(R"({"result":0,"isPreferred":false,"siteInfo":[]})"));
  CommonUtilService::onNotifyOptSiteDetect(0, 0, 0, {{"s", "n", "i", 1, 2, 3, 4}});
  EXPECT_EQ(Next(),
            Parse(R"({"description":"COMMONUTIL_E_EVENT_ON_SITE_OPT_DETECT_RESULT","notify":7,
      "param":{"result":0,"isPreferred":true,"siteInfo":[{"siteName":"s","nodeName":"n","ip":"i",
      "port":1,"delayBase":2,"delay":3,"discard":4}]}})"));
}

}  // namespace
