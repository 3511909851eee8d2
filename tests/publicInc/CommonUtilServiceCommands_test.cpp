// The commands that hand a request's values to proxy detection, network tools and tracking.
#include <thread>
#include <utility>

#include "proxy/ProxyProbes.h"
#include "publicInc/ProxyReply.h"
#include "publicInc/ServiceTest.h"

namespace {

using support::CountLog;
using support::Parse;
using support::ProxyProbes;
using Texts = std::vector<std::string>;
using Numbers = std::vector<long long>;

class CommandsTest : public support::ServiceTest {
 protected:
  // The next message, which it waits for.
  Json::Value Await() {
    for (;;) {
      const Json::Value message = Next();
      if (!message.isNull()) return message;
      std::this_thread::yield();
    }
  }

  static support::PlatformCall LastNet() { return support::NetCalls().back(); }
  static support::PlatformCall LastTrack() { return support::TrackCalls().back(); }
};

TEST_F(CommandsTest, TheProxyCommandsAnswerWithTheDecision) {
  const auto probes = ProxyProbes::Install();
  EXPECT_EQ(Ask(R"({"cmd":6,"sno":1,"description":"d","param":{"proxyServer":"proxy.example",
      "proxyPort":3128,"proxyAccount":"user","proxyAccPswd":"pa ss",
      "serverURL":"http://server.example/"}})"),
            Parse(R"({"description":"d","result":0,"rsp":6,"sno":1})"));
  EXPECT_EQ(CountLog("SetUserInfo in cmd:6, sno:1, description:d, "
                     "serverURL:http://server.example/, proxyServer:proxy.example, "
                     "proxyPort:3128, proxyAccount:user, proxyAccPswd:"),
            1);
  Post(R"({"cmd":7,"sno":2})");
  Post(R"({"cmd":7,"sno":3,"description":"asked"})");  // the first one is superseded
  EXPECT_TRUE(Next().isNull());
  probes->Finish(ProxyProbes::kProxied, 0);
  EXPECT_EQ(Await(), Parse(R"({"description":"asked","rsp":7,"result":0,"sno":3,"param":{
      "proxyServer":"proxy.example","proxyPort":3128,"proxyAccount":"user",
      "proxyAccPswd":"pa ss"}})"));

  Post(R"({"cmd":8,"sno":4,"param":{"localIP":"192.0.2.1"}})");
  EXPECT_EQ(CountLog("SetUserInfo in cmd:8, sno:4, description:, proxyAccount:192.0.2.1"), 1);
  probes->Finish(ProxyProbes::kDirect, 0);
  probes->Finish(ProxyProbes::kDirect, 0);
  const Json::Value reply = Await();
  EXPECT_EQ(reply["rsp"].asUInt(), 8U);
  EXPECT_EQ(reply["param"]["proxyServer"].asString(), "");
  probes->Finish(ProxyProbes::kProxied, 7);
  EXPECT_EQ(CountLog("GetProxy out cmd:7, sno:3, description:asked, proxyServer:proxy.example, "
                     "proxyPort:3128, proxyAccount:user, proxyAccPswdNum:5"),
            1);
  EXPECT_EQ(support::CountLogPrefix("NetworkChangeRetProc out cmd:8, sno:4, "), 1);
  ExpectNotLogged("pa ss");
  Ask(R"({"cmd":6,"param":{"serverURL":"u"}})");  // no proxy: later tests start undecided
}

TEST_F(CommandsTest, SupersededQuestionsDoNotPileUpAndALateAnswerFindsNoService) {
  const auto probes = ProxyProbes::Install();
  Ask(R"({"cmd":6,"param":{"proxyServer":"other.example","serverURL":"http://s/"}})");
  for (int i = 0; i < 1000; ++i) {
    probes->Finish(ProxyProbes::kDirect, 7);
    probes->Finish(ProxyProbes::kProxied, 7);
    Post(R"({"cmd":8,"param":{"localIP":"192.0.2.1"}})");
    ASSERT_LE(ProxyCallbackHandover::CountAlive(), 3U);
  }
  // A service that goes while its question is open.
  auto gone = std::make_shared<CommonUtilService>();
  std::string question = R"({"cmd":8})";
  gone->ProcessRecvMsg(question.data());
  const std::weak_ptr<CommonUtilService> watched = gone;
  gone.reset();
  EXPECT_TRUE(watched.expired());
  const std::size_t waiting = ProxyCallbackHandover::CountAlive();
  probes->Finish(ProxyProbes::kDirect, 0);
  while (ProxyCallbackHandover::CountAlive() >= waiting) std::this_thread::yield();
  Ask(R"({"cmd":6,"param":{"serverURL":"u"}})");
}

TEST_F(CommandsTest, SettingsOfAProxyAreRefusedInTheWrongShape) {
  EXPECT_EQ(Ask(R"({"cmd":6,"sno":1})"), Parse(R"({"result":411000002,"rsp":6,"sno":1})"));
  EXPECT_EQ(Ask(R"({"cmd":6,"param":[1]})")["src_req"]["param"], Parse("[1]"));

  // The port stands in "param", the texts beside it.
  const std::string texts = R"("proxy_domain":"d","proxy_user_name":"u","proxy_pwd":"p")";
  const std::string port = R"({"cmd":15,"param":{"proxy_port":)";
  for (const std::string& request :
       {port + "0}," + texts + "}", R"({"cmd":15,)" + texts + "}", port + "8080," + texts + "}}",
        port + R"(8080},"proxy_domain":"d","proxy_user_name":5,"proxy_pwd":"p"})"}) {
    Post(request);
    EXPECT_EQ(support::CountNet("orb_http_set_proxy"), 0) << request;
  }
  for (const auto& [number, expected] : {std::pair("8080", 8080), {"65536", 0}}) {
    Post(port + number + "}," + texts + "}");
    EXPECT_EQ(LastNet().texts, (Texts{"d", "u", "p"}));
    EXPECT_EQ(LastNet().numbers, Numbers{expected});
  }
  EXPECT_EQ(CountLog("proxy_port is no port: 65536"), 1);
  EXPECT_TRUE(Next().isNull());
  // The only answer there is: to a "param" that has no keys.
  const std::string request = R"({"cmd":15,"param":[8080],)" + texts + "}";
  EXPECT_EQ(Ask(request)["src_req"], Parse(request));
}

TEST_F(CommandsTest, TheDetectionCommandsReplyWithThePlatformsResult) {
  support::NetScript script;
  script.result = 9;
  support::SetNetScript(script);
  support::SetIntegerSetting(69, 1);
  EXPECT_EQ(Ask(R"({"cmd":14,"param":{"sbc_svn_server_domain":"d","ms_server_domain":3,
      "internet_server_domain":"a","middle_server_domain":"b"}})"),
            Parse(R"({"description":"SetNetDetectSrvs","result":9,"rsp":14})"));
  EXPECT_EQ(LastNet().texts, (Texts{"a", "b", "", "d"}));
  EXPECT_EQ(LastNet().numbers, Numbers(4, 2));
  EXPECT_EQ(Ask(R"({"cmd":16,"sno":3000000000})"),
            Parse(R"({"description":"NetDetect","result":9,"rsp":16,"sno":3000000000})"));
  EXPECT_EQ(LastNet().numbers, Numbers{0});
  Ask(R"({"cmd":16,"sno":12})");
  EXPECT_EQ(LastNet().numbers, Numbers{12});
}

TEST_F(CommandsTest, TrackingCommandsCheckTheirShapesBeforeTheyTrack) {
  const char* const descriptions[] = {"orb_ut_config_public_param", "orb_ut_add_usertrack",
                                      "orb_ut_start_event", "orb_ut_end_event"};
  for (int cmd = 2; cmd <= 5; ++cmd) {
    for (const char* param :
         {"", R"(,"param":7)", R"(,"param":{"contextParam":[],"publicParam":"x","index":{}})"}) {
      const Json::Value reply = Ask("{\"cmd\":" + std::to_string(cmd) + param + "}");
      EXPECT_EQ(reply["result"].asInt(), 1) << cmd << param;
      EXPECT_EQ(reply["description"].asString(), descriptions[cmd - 2]);
    }
  }
  EXPECT_EQ(Result(R"({"cmd":5,"param":{"contextParam":{}}})"), 1);
  EXPECT_EQ(Result(R"({"cmd":5,"param":{"index":"i"}})"), 1);
  EXPECT_EQ(Result(R"({"cmd":4,"param":{"index":""}})"), 411000002);
  EXPECT_TRUE(support::TrackCalls().empty());
}

TEST_F(CommandsTest, TrackingCommandsHandTheirTextsOver) {
  support::SetTrackResult(8);
  const std::string longArgs(8191, 'a');
  const std::string event = R"("eventId":"e","arg1":"1","arg2":2,"arg3":"3","args":")";
  EXPECT_EQ(Result(R"({"cmd":3,"param":{"contextParam":{)" + event + longArgs + "\"}}}"), 8);
  EXPECT_EQ(LastTrack().texts, (Texts{"e", "1", "", "3", longArgs}));
  EXPECT_EQ(Result(R"({"cmd":4,"param":{"index":"i"}})"), 8);
  EXPECT_EQ(
      Result(R"({"cmd":5,"param":{"index":"i","contextParam":{"eventId":"0123456789abcdef"}}})"),
      8);
  EXPECT_EQ(LastTrack().texts, (Texts{"i", "", "", "", "", ""}));
  EXPECT_EQ(support::CountLogPrefix("ConvertJsonToUTContextInfo error, ret = ", 0), 1);
  // The public parameters answer 0 whatever tracking says, and so does the upload switch.
  EXPECT_EQ(Result(R"({"cmd":2,"param":{"publicParam":{"deviceId":"guid","channelId":"c",
      "access":"wifi","version":"9"}}})"),
            0);
  EXPECT_EQ(LastTrack().texts[1], "guid");
  EXPECT_EQ(CountLog("[UT] channelId:caccess: wifi, version: 9"), 1);
  for (const auto& [value, expected] :
       {std::pair("true", 1), {"false", 0}, {"7", 7}, {"-5", 0}, {"1.5", 0}, {"\"1\"", 0}}) {
    EXPECT_EQ(
        Ask(std::string(R"({"cmd":9,"param":{"customParam":{"uploadSwitch":)") + value + "}}}"),
        Parse(R"({"description":"orb_commonutil_config_custom_param","result":0,"rsp":9})"));
    EXPECT_EQ(LastTrack().numbers[0], expected) << value;
    EXPECT_GE(CountLog("uploadSwitch value is: " + std::to_string(expected), 2), 1);
  }
}

}  // namespace
