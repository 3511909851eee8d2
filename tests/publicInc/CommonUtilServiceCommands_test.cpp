// The commands that hand a request's values to proxy detection, network tools and tracking.
#include <string>
#include <thread>
#include <vector>

#include "proxy/ProxyProbes.h"
#include "publicInc/ProxyReply.h"
#include "publicInc/ServiceTest.h"

namespace {

using support::Parse;
using support::PlatformCall;
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

  static PlatformCall LastOf(const std::vector<PlatformCall>& calls) {
    return calls.empty() ? PlatformCall{} : calls.back();
  }
};

TEST_F(CommandsTest, TheProxyCommandsAnswerWithTheDecision) {
  const auto probes = ProxyProbes::Install();
  EXPECT_EQ(Ask(R"({"cmd":6,"sno":1,"description":"d","param":{"proxyServer":"proxy.example",
      "proxyPort":3128,"proxyAccount":"user","proxyAccPswd":"pa ss",
      "serverURL":"http://server.example/"}})"),
            Parse(R"({"description":"d","result":0,"rsp":6,"sno":1})"));
  EXPECT_EQ(support::CountLog("SetUserInfo in cmd:6, sno:1, description:d, "
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
  EXPECT_EQ(support::CountLog("SetUserInfo in cmd:8, sno:4, description:, proxyAccount:192.0.2.1"),
            1);
  probes->Finish(ProxyProbes::kDirect, 0);
  probes->Finish(ProxyProbes::kDirect, 0);
  const Json::Value reply = Await();
  EXPECT_EQ(reply["rsp"].asUInt(), 8U);
  EXPECT_EQ(reply["param"]["proxyServer"].asString(), "");
  probes->Finish(ProxyProbes::kProxied, 7);
  EXPECT_EQ(support::CountLog("GetProxy out cmd:7, sno:3, description:asked, "
                              "proxyServer:proxy.example, proxyPort:3128, proxyAccount:user, "
                              "proxyAccPswdNum:5"),
            1);
  EXPECT_EQ(support::CountLogPrefix("NetworkChangeRetProc out cmd:8, sno:4, "), 1);
  for (const std::string& line : support::LogTexts()) {
    EXPECT_EQ(line.find("pa ss"), std::string::npos) << line;
  }
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
  const Json::Value reply = Ask(R"({"cmd":6,"sno":1,"param":[1]})");
  EXPECT_EQ(reply["result"].asInt(), 1);
  EXPECT_EQ(reply["src_req"]["param"][0].asInt(), 1);

  // The port stands in "param", the texts beside it.
  const std::string texts = R"("proxy_domain":"d","proxy_user_name":"u","proxy_pwd":"p")";
  for (const std::string& request :
       {R"({"cmd":15,"param":{"proxy_port":0},)" + texts + "}", R"({"cmd":15,)" + texts + "}",
        R"({"cmd":15,"param":{"proxy_port":8080,)" + texts + "}}",
        std::string(R"({"cmd":15,"param":{"proxy_port":8080},"proxy_domain":"d",)"
                    R"("proxy_user_name":5,"proxy_pwd":"p"})")}) {
    Post(request);
    EXPECT_EQ(support::CountNet("orb_http_set_proxy"), 0) << request;
  }
  Post(R"({"cmd":15,"param":{"proxy_port":8080},)" + texts + "}");
  EXPECT_EQ(LastOf(support::NetCalls()).texts, (Texts{"d", "u", "p"}));
  EXPECT_EQ(LastOf(support::NetCalls()).numbers, Numbers{8080});
  Post(R"({"cmd":15,"param":{"proxy_port":65536},)" + texts + "}");
  EXPECT_EQ(LastOf(support::NetCalls()).numbers, Numbers{0});
  EXPECT_EQ(support::CountLog("proxy_port is no port: 65536"), 1);
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
  EXPECT_EQ(LastOf(support::NetCalls()).texts, (Texts{"a", "b", "", "d"}));
  EXPECT_EQ(LastOf(support::NetCalls()).numbers, Numbers(4, 2));
  EXPECT_EQ(Ask(R"({"cmd":16,"sno":3000000000})"),
            Parse(R"({"description":"NetDetect","result":9,"rsp":16,"sno":3000000000})"));
  EXPECT_EQ(LastOf(support::NetCalls()).numbers, Numbers{0});
  Ask(R"({"cmd":16,"sno":12})");
  EXPECT_EQ(LastOf(support::NetCalls()).numbers, Numbers{12});
}

TEST_F(CommandsTest, TrackingCommandsCheckTheirShapesBeforeTheyTrack) {
  const char* const descriptions[] = {"orb_ut_config_public_param", "orb_ut_add_usertrack",
                                      "orb_ut_start_event", "orb_ut_end_event"};
  for (int cmd = 2; cmd <= 5; ++cmd) {
    for (const char* param : {"", R"(,"param":7)", R"(,"param":{"index":4})",
                              R"(,"param":{"contextParam":[],"publicParam":"x","index":{}})"}) {
      const Json::Value reply = Ask("{\"cmd\":" + std::to_string(cmd) + param + "}");
      EXPECT_EQ(reply["result"].asInt(), 1) << cmd << param;
      EXPECT_EQ(reply["description"].asString(), descriptions[cmd - 2]);
    }
  }
  EXPECT_EQ(Ask(R"({"cmd":5,"param":{"contextParam":{}}})")["result"].asInt(), 1);
  EXPECT_EQ(Ask(R"({"cmd":4,"param":{"index":""}})")["result"].asInt(), 411000002);
  EXPECT_TRUE(support::TrackCalls().empty());
}

TEST_F(CommandsTest, TrackingCommandsHandTheirTextsOver) {
  support::SetTrackResult(8);
  const std::string longArgs(8191, 'a');
  const auto result = [this](const std::string& request) { return Ask(request)["result"].asInt(); };
  const std::string event = R"("eventId":"e","arg1":"1","arg2":2,"arg3":"3","args":")";
  EXPECT_EQ(result(R"({"cmd":3,"param":{"contextParam":{)" + event + longArgs + "\"}}}"), 8);
  EXPECT_EQ(LastOf(support::TrackCalls()).texts, (Texts{"e", "1", "", "3", longArgs}));
  EXPECT_EQ(result(R"({"cmd":4,"param":{"index":"i"}})"), 8);
  EXPECT_EQ(
      result(R"({"cmd":5,"param":{"index":"i","contextParam":{"eventId":"0123456789abcdef"}}})"),
      8);
  EXPECT_EQ(LastOf(support::TrackCalls()).texts, (Texts{"i", "", "", "", "", ""}));
  EXPECT_EQ(support::CountLogPrefix("ConvertJsonToUTContextInfo error, ret = ", 0), 1);
  // The public parameters answer 0 whatever tracking says.
  EXPECT_EQ(result(R"({"cmd":2,"param":{"publicParam":{"deviceId":"guid","channelId":"c",
      "access":"wifi","version":"9"}}})"),
            0);
  EXPECT_EQ(LastOf(support::TrackCalls()).texts[1], "guid");
  EXPECT_EQ(support::CountLog("[UT] channelId:caccess: wifi, version: 9"), 1);
}

TEST_F(CommandsTest, TheUploadSwitchIsABooleanOrAnUnsignedNumber) {
  support::SetTrackResult(8);
  for (const auto& [value, expected] : std::vector<std::pair<std::string, int>>{
           {"true", 1}, {"false", 0}, {"7", 7}, {"-5", 0}, {"1.5", 0}, {"\"1\"", 0}, {"null", 0}}) {
    EXPECT_EQ(Ask(R"({"cmd":9,"param":{"customParam":{"uploadSwitch":)" + value + "}}}"),
              Parse(R"({"description":"orb_commonutil_config_custom_param","result":0,"rsp":9})"));
    EXPECT_EQ(LastOf(support::TrackCalls()).numbers[0], expected) << value;
    EXPECT_EQ(support::CountLog("uploadSwitch value is: " + std::to_string(expected), 2) > 0, true);
  }
  EXPECT_EQ(Ask(R"({"cmd":9})")["result"].asInt(), 0);
}

}  // namespace
