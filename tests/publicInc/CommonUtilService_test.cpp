#include "publicInc/CommonUtilService.h"

#include <stdexcept>

#include "publicInc/CommonUtilManager.h"
#include "publicInc/ServiceTest.h"
#include "support/TempDir.h"

namespace {

using support::Parse;

class CommonUtilServiceTest : public support::ServiceTest {};

TEST_F(CommonUtilServiceTest, EchoesWhatTheRequestBringsAndNothingElse) {
  EXPECT_EQ(Ask(R"({"cmd":11,"sno":7,"description":"mine"})"),
            Parse(R"({"description":"mine","rsp":11,"result":0,"sno":7})"));
  EXPECT_EQ(Ask(R"({"cmd":13,"sno":"7","description":5})"), Parse(R"({"rsp":13,"result":0})"));
  EXPECT_EQ(Ask(R"({"cmd":13,"sno":-1,"description":""})"),
            Parse(R"({"description":"","rsp":13,"result":0})"));
  // The number is masked, but the reply has all of it.
  EXPECT_EQ(Ask(R"({"cmd":262155})"), Parse(R"({"rsp":262155,"result":0})"));
  EXPECT_TRUE(Ask(R"({"cmd":131083})").isNull());  // bit 17
}

// The one test that initialises the process: once, and with ill-typed values beside good ones.
TEST_F(CommonUtilServiceTest, InitialisesOnceAndReportsTheSecondTime) {
  const support::TempDir dir;
  Json::Value request =
      Parse(R"({"cmd":65537,"param":{"initParam":{"logLevel":"2","logSize":1.5}}})");
  request["param"]["initParam"]["dbPath"] = dir.Path();
  request["param"]["initParam"]["log_path"] = std::string(512, 'l');  // does not fit
  EXPECT_EQ(Result(request.toStyledString()), 0);
  EXPECT_EQ(support::CountLogPrefix("ConvertJsonToUTContextInfo error, ret = ", 0), 1);
  EXPECT_EQ(support::CountLogPrefix("Init, logPath = , logLevel = 0, logSize = 0, fileCount = 0 "),
            1);
  EXPECT_EQ(Result(request.toStyledString()), 2);
}

TEST_F(CommonUtilServiceTest, ComposesRepliesForExceptionsAndStrangeNumbers) {
  Json::Value request = Parse(R"({"cmd":6,"description":5,"x":[1]})");
  m_service->_processInputJsonException(std::runtime_error("why"), request);
  EXPECT_EQ(Next(), Parse(R"({"reason":"some param is not correct! why","result":1,"rsp":6,
      "src_req":{"cmd":6,"description":5,"x":[1]}})"));
  struct Wordless : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  m_service->_processInputJsonException(Wordless(), request);
  EXPECT_TRUE(Next().isNull());

  request = Parse(R"({"cmd":"six","sno":1})");
  Json::Value payload = Parse(R"({"a":[1,2]})");
  m_service->_makeRetMsgAndSend(5, payload, request, "fallback");
  EXPECT_EQ(Next(),
            Parse(R"({"description":"fallback","rsp":0,"result":5,"sno":1,"param":{"a":[1,2]}})"));
}

TEST_F(CommonUtilServiceTest, AfterOneDirectCallRepliesLeaveThePrimaryStoreForGood) {
  Json::Value invalid(5);
  EXPECT_EQ(m_service->ProcessCallFuncMsg(invalid), nullptr);  // routes all the same
  EXPECT_TRUE(Ask(R"({"cmd":11,"sno":1})").isNull());
  Json::Value request = Parse(R"({"cmd":12,"sno":2})");
  const std::unique_ptr<char[]> oldest(m_service->ProcessCallFuncMsg(request));
  ASSERT_NE(oldest, nullptr);
  EXPECT_EQ(Parse(oldest.get())["sno"].asUInt(), 1U);  // the oldest, not this one's
  m_service->onUsingProxyChange(commonutil::ProxyInfo());
  EXPECT_EQ(Next()["notify"].asInt(), 1);
}

TEST_F(CommonUtilServiceTest, AnnouncesTheProxyInUseThroughTheFacadeWhileItLives) {
  commonutil::ProxyInfo proxy;
  proxy.setProxyServer("proxy.example");
  proxy.setProxyPort(8080);
  proxy.setProxyAccount("user");
  proxy.setProxyPassword("pass word");
  auto& facade = commonutil::CommonUtilManager::GetInstance();
  facade.SetGlobalCallback(m_service.get());
  facade.onUsingProxyChange(proxy);
  EXPECT_EQ(Next(), Parse(R"({"description":"COMMONUTIL_E_EVENT_ON_USINGPROXYCHANGE","notify":1,
      "param":{"proxyServer":"proxy.example","proxyPort":8080,"proxyAccount":"user",
      "proxyAccPswd":"pass word"}})"));
  ExpectNotLogged("pass word");
  {
    CommonUtilService gone;
    facade.SetGlobalCallback(&gone);
  }
  facade.onUsingProxyChange(proxy);  // would reach freed memory
  EXPECT_TRUE(Next().isNull());
}

TEST_F(CommonUtilServiceTest, ACallersBufferIsWiped) {
  char text[] = "secret";
  EXPECT_EQ(static_cast<CommonUtilOrbService&>(*m_service).RecvMsgImport(text, 6), 0);
  EXPECT_EQ(std::string(text, 6), std::string(6, '\0'));
}

}  // namespace
