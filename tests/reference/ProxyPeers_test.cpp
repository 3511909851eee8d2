// Proxy detection with real servers: nginx as the server, squid and tinyproxy in front of it.
#include <string>

#include <gtest/gtest.h>

#include "proxy/ProxyRecorder.h"
#include "proxy/proxy_detect.h"
#include "support/HttpPeers.h"

namespace {

using support::kProxyPassword;
using support::ProxyAccess;

constexpr std::uint16_t kDeadPort = 1;

TEST(ProxyPeersTest, WhatGetsThroughFirstIsTheAnswer) {
  const auto origin = support::StartNginx(support::MakeCertificate());
  const auto basic = support::StartSquid(ProxyAccess::kBasic);
  const auto digest = support::StartSquid(ProxyAccess::kDigest);
  const auto tiny = support::StartTinyproxy(ProxyAccess::kBasic);
  const struct {
    const char* what;
    std::uint16_t port, proxyPort;
    const char* password;
    const char* answer;
  } cases[] = {
      {"the proxy is dead", origin->Port(), kDeadPort, kProxyPassword, ""},
      {"the server is dead", kDeadPort, tiny->Port(), kProxyPassword, "127.0.0.1"},
      {"digest", kDeadPort, digest->Port(), kProxyPassword, "127.0.0.1"},
      {"a wrong password is an answer too", kDeadPort, basic->Port(), "wrong", "127.0.0.1"},
  };
  auto& detect = commonutil::ProxyDetect::GetInstance();
  for (const auto& c : cases) {
    commonutil::ProxyInfo proxy;
    proxy.setProxyServer("127.0.0.1");
    proxy.setProxyPort(c.proxyPort);
    proxy.setProxyAccount(support::kProxyUser);
    proxy.setProxyPassword(c.password);
    detect.SetUserInfo(proxy, "http://127.0.0.1:" + std::to_string(c.port) + "/error");
    support::ProxyRecorder asked;
    detect.NetworkChange("127.0.0.1", &asked);  // undecided, whatever came before
    EXPECT_EQ(asked.Await(1).front(), c.answer) << c.what;
  }
}

}  // namespace
