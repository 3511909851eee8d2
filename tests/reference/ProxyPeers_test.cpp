// Proxy detection with real servers: nginx as the server, squid and tinyproxy in front of it.
#include <sys/socket.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "proxy/ProxyRecorder.h"
#include "proxy/proxy_detect.h"
#include "publicInc/CommonUtilEntry.h"
#include "publicInc/ProxyReply.h"
#include "support/HttpPeers.h"

namespace {

using commonutil::ProxyDetect;
using commonutil::ProxyInfo;
using support::ProxyRecorder;

constexpr std::uint16_t kDeadPort = 1;

std::string Url(std::uint16_t port, const char* path) {
  return "http://127.0.0.1:" + std::to_string(port) + path;
}

ProxyInfo Proxy(std::uint16_t port, const std::string& password) {
  ProxyInfo proxy;
  proxy.setProxyServer("127.0.0.1");
  proxy.setProxyPort(port);
  proxy.setProxyAccount(support::kProxyUser);
  proxy.setProxyPassword(password);
  return proxy;
}

// What GetProxy answers in the end: "direct" or "proxy".
std::string Ask() {
  ProxyRecorder asked;
  (void)ProxyDetect::GetInstance().GetProxy(&asked);
  return asked.Await(1).front().empty() ? "direct" : "proxy";
}

// The service is shut down while its question is open; the answer comes afterwards. The first test:
// late probes of the others would answer its question.
TEST(ProxyPeersTest, AnAnswerThatComesAfterTheServiceIsDropped) {
  std::promise<void> mayAnswer;
  const std::shared_future<void> gate = mayAnswer.get_future().share();
  std::promise<void> hasBegun;
  bool isFirst = true;
  zelctl::LoopbackServer origin(SOCK_STREAM, [&](int client) {
    if (std::exchange(isFirst, false)) hasBegun.set_value();
    gate.wait();
    zelctl::LoopbackRequest request;
    if (zelctl::ReadRequest(client, &request)) zelctl::SendAnswer(client, "200 OK", "", "");
  });
  ASSERT_EQ(CommonUtilServiceStartup(), 0);
  const auto import = [](const std::string& text) {
    EXPECT_EQ(CommonUtilRecvMsgImport(text.data(), text.size()), 1);
  };
  import(R"({"cmd":6,"param":{"proxyServer":"127.0.0.1","proxyPort":1,"serverURL":")" +
         Url(origin.Port(), "/") + "\"}}");
  import(R"({"cmd":8})");
  hasBegun.get_future().wait();
  CommonUtilServiceShutDown();
  EXPECT_EQ(ProxyCallbackHandover::CountAlive(), 1U);
  mayAnswer.set_value();
  while (ProxyCallbackHandover::CountAlive() != 0) std::this_thread::yield();
}

TEST(ProxyPeersTest, WhatGetsThroughFirstIsTheAnswer) {
  const support::Certificate certificate = support::MakeCertificate();
  const auto origin = support::StartNginx(certificate);
  const auto basic = support::StartSquid(support::ProxyAccess::kBasic);
  const auto digest = support::StartSquid(support::ProxyAccess::kDigest);
  const auto tiny = support::StartTinyproxy(support::ProxyAccess::kBasic);
  struct Case {
    const char* what;
    std::string url;
    std::uint16_t proxyPort;
    std::string password;
    std::string answer;  // empty: either
  };
  const std::string good = support::kProxyPassword;
  ProxyDetect& detect = ProxyDetect::GetInstance();
  for (const Case& c :
       {Case{"the proxy is dead", Url(origin->Port(), "/ok"), kDeadPort, good, "direct"},
        Case{"any status is an answer", Url(origin->Port(), "/error"), kDeadPort, good, "direct"},
        Case{"the server is dead", Url(kDeadPort, "/"), basic->Port(), good, "proxy"},
        Case{"a wrong password is an answer too", Url(kDeadPort, "/"), basic->Port(), "x", "proxy"},
        Case{"digest", Url(kDeadPort, "/"), digest->Port(), good, "proxy"},
        Case{"another proxy", Url(kDeadPort, "/"), tiny->Port(), good, "proxy"},
        Case{"both live", Url(origin->Port(), "/ok"), tiny->Port(), good, ""}}) {
    EXPECT_EQ(detect.SetUserInfo(Proxy(c.proxyPort, c.password), c.url), 0);
    detect.NetworkChange("127.0.0.1", nullptr);  // undecided, whatever came before
    const std::string answer = Ask();
    EXPECT_TRUE(c.answer.empty() || answer == c.answer) << c.what;
  }
}

}  // namespace
