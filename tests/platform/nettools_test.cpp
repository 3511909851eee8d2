// Network detection against a real STUN server, and against peers that do not behave.
#include "zel_platform/nettools.h"

#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "config/config_ref.h"
#include "config/settings.h"
#include "nettools/DetectServer.h"
#include "nettools/StunMessage.h"
#include "nettools/nettools_ref.h"
#include "support/Arrivals.h"
#include "support/Peer.h"
#include "support/TempDir.h"
#include "zel_platform/loghooks.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Result = tagNET_DETECT_PROCESS_RESULT;

auto& g_reports = *new support::Arrivals<Result>;
void Receive(const Result* result) { g_reports.Add(*result); }

// Answers UDP datagrams with what `script` gives for the one of this number, from 0 on.
using Script = std::function<std::vector<Bytes>(int number, const Bytes& request)>;
zelctl::LoopbackServer::Serve Answering(const Script& script) {
  return [script, number = 0](int socket) mutable {
    Bytes request(2048);
    sockaddr_storage from = {};
    socklen_t size = sizeof(from);
    auto* const sender = reinterpret_cast<sockaddr*>(&from);
    const ssize_t got = ::recvfrom(socket, request.data(), request.size(), 0, sender, &size);
    if (got <= 0) return;
    request.resize(static_cast<std::size_t>(got));
    for (const Bytes& answer : script(number++, request)) {
      (void)::sendto(socket, answer.data(), answer.size(), 0, sender, size);
    }
  };
}

// A success without attributes.
Bytes Success(Bytes request) {
  request[0] = request[1] = 0x01;
  return request;
}

tagNET_DETECT_SRV Server(const std::string& domain, int mode = 0) {
  tagNET_DETECT_SRV server = {};
  std::strcpy(server.domain, domain.c_str());
  server.mode = mode;
  return server;
}

std::string Local(std::uint16_t port) { return "127.0.0.1:" + std::to_string(port); }

class NetToolsTest : public testing::Test {
 protected:
  ~NetToolsTest() override {
    orb_config_ref_clear();
    SetServers({});
  }

  void Settings(const std::string& members) {
    support::WriteWholeFile(m_dir.File("platform.json"), members);
    orb_config_set_directory(m_dir.Path());
  }
  static void SetServers(std::vector<tagNET_DETECT_SRV> servers) {
    servers.resize(4);
    EXPECT_EQ(orb_set_net_detect_srvs(servers.data(), 4), 0);
  }
  static Result Detect(const std::string& domain, int mode = 0) {
    SetServers({Server(domain, mode)});
    EXPECT_EQ(orb_net_detect(77, &Receive), 0);
    return g_reports.Take().front();
  }

  const support::TempDir m_dir;
};

TEST(StunMessageTest, OnlyWholeAnswersToBindingRequestsPass) {
  const StunTransactionId id = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  const StunRequest request = BuildStunRequest(id);
  StunTransactionId found = {};
  const auto parses = [&found](const Bytes& bytes, std::size_t size) {
    return ParseStunAnswer(bytes.data(), size, &found);
  };
  Bytes good = Success(Bytes(request.begin(), request.end()));
  EXPECT_TRUE(parses(good, good.size()));
  EXPECT_EQ(found, id);
  // An attribute of 5 bytes, padded, in a message that says so.
  good[3] = 12;
  good.insert(good.end(), {0x80, 0x22, 0, 5, 'a', 'b', 'c', 'd', 'e', 0, 0, 0});
  EXPECT_TRUE(parses(good, good.size()));
  for (std::size_t size = 0; size < good.size(); ++size) EXPECT_FALSE(parses(good, size)) << size;
  for (const auto& [at, value] : std::vector<std::pair<std::size_t, unsigned char>>{
           {0, 0x00}, {0, 0x81}, {1, 0x02}, {3, 11}, {3, 16}, {4, 0x20}, {23, 9}, {22, 0xFF}}) {
    Bytes damaged = good;
    damaged[at] = value;
    EXPECT_FALSE(parses(damaged, damaged.size())) << at;
  }
}

TEST(DetectEntryTest, NamesAHostAndMaybeAPort) {
  const std::pair<const char*, const char*> cases[] = {{"a.example", "a.example 0"},
                                                       {"a:1", "a 1"},
                                                       {"[::1]:65535", "::1 65535"},
                                                       {"[::1]", "::1 0"},
                                                       {"2001:db8::1", "2001:db8::1 0"}};
  DetectEntry entry;
  for (const auto& [text, hostAndPort] : cases) {
    EXPECT_TRUE(ParseDetectEntry(text, &entry)) << text;
    EXPECT_EQ(entry.host + " " + std::to_string(entry.port), hostAndPort);
  }
  for (const char* text :
       {"", ":80", "a:", "a:0", "a:65536", "a:-1", "[::1", "[::1]x", "a:99999999999"}) {
    EXPECT_FALSE(ParseDetectEntry(text, &entry)) << text;
  }
}

std::atomic<int> g_dnsErrors{0};

TEST_F(NetToolsTest, ReportsEachNamedServerInTurn) {
  Settings(R"({"detect":{"requests":4,"pacingMs":1,"timeoutMs":50}})");
  orb_dns_set_log_level(3);  // hides that a look-up begins
  g_dnsErrors = 0;
  orb_dns_register_log_func([](const char*) { ++g_dnsErrors; });
  zelctl::LoopbackServer half(SOCK_DGRAM, Answering([](int number, const Bytes& request) {
                                return std::vector<Bytes>(number % 2 == 0 ? 1 : 0,
                                                          Success(request));
                              }));
  SetServers({Server(Local(half.Port())), Server("name.invalid"), Server(""), Server("a:0")});
  EXPECT_EQ(orb_net_detect(77, &Receive), 0);
  const std::vector<Result> reports = g_reports.Take(3);
  orb_dns_register_log_func(nullptr);
  std::vector<std::vector<int>> told;
  for (const Result& r : reports) {
    told.push_back({r.sno, r.currentLevel, r.totalLevel, r.result, r.discard});
    EXPECT_TRUE(r.minDelay <= r.averageDelay && r.averageDelay <= r.maxDelay);
  }
  EXPECT_EQ(told, (std::vector<std::vector<int>>{{77, 1, 3, 0, 50},
                                                 {77, 2, 3, kDetectNotResolved, 100},
                                                 {77, 3, 3, kDetectBadEntry, 100}}));
  EXPECT_EQ(g_dnsErrors.load(), 1);
}

// A peer that floods the run does not hold it up either.
TEST_F(NetToolsTest, OnlyAnswersToItsOwnRequestsCountAndEachOnce) {
  Settings(R"({"detect":{"requests":3,"pacingMs":1,"timeoutMs":50}})");
  using Answers = std::vector<Bytes>;
  const auto otherTransaction = [](int, Bytes r) {
    r[19] = static_cast<unsigned char>(r[19] ^ 1U);
    return Answers{Success(r)};
  };
  const std::pair<Script, bool> cases[] = {
      {[](int, const Bytes& r) { return Answers(3, Success(r)); }, true},
      {[](int, const Bytes& r) { return Answers{r}; }, false},
      {[](int, const Bytes&) { return Answers(2, Bytes(2000, 1)); }, false},
      {[](int n, const Bytes&) { return Answers(n == 0 ? 20000 : 0, Bytes(30, 0x55)); }, false},
      {otherTransaction, false}};
  for (const auto& [script, counts] : cases) {
    zelctl::LoopbackServer peer(SOCK_DGRAM, Answering(script));
    const Result report = Detect(Local(peer.Port()));
    EXPECT_EQ(report.result, counts ? 0 : kDetectNoAnswer);
    EXPECT_EQ(report.discard, counts ? 0 : 100);
  }
}

TEST_F(NetToolsTest, RefusesWhatCannotRun) {
  std::vector<std::string> list = {"kept"};
  Settings("{}");
  EXPECT_NE(GetNetDetectIps(list, true), 0);
  EXPECT_EQ(list, std::vector<std::string>{"kept"});
  Settings(R"({"detect":{"requests":1,"timeoutMs":1000,"addresses":["a","b"]}})");
  EXPECT_EQ(GetNetDetectIps(list, false), 0);
  EXPECT_EQ(list, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(orb_net_detect(1, nullptr), kNetToolsBadArgument);
  EXPECT_EQ(orb_net_detect(1, &Receive), kNetToolsNoServers);
  EXPECT_EQ(orb_set_net_detect_srvs(nullptr, 4), kNetToolsBadArgument);
  tagNET_DETECT_SRV servers[4] = {};
  EXPECT_EQ(orb_set_net_detect_srvs(servers, 3), kNetToolsBadArgument);
  std::memset(servers[3].domain, 'x', sizeof(servers[3].domain));  // no NUL
  EXPECT_EQ(orb_set_net_detect_srvs(servers, 4), kNetToolsBadArgument);
}

TEST_F(NetToolsTest, RunsOneAtATimeAndGivesEachItsCallback) {
  std::mutex gate;
  const Script script = [&gate](int, const Bytes& request) {
    const std::lock_guard<std::mutex> wait(gate);
    return std::vector<Bytes>{Success(request)};
  };
  zelctl::LoopbackServer held(SOCK_DGRAM, Answering(script));
  Settings(R"({"detect":{"requests":1}})");
  SetServers({Server(Local(held.Port()))});
  {
    const std::lock_guard<std::mutex> closed(gate);
    const auto receive = [](Result& result) { g_reports.Add(result); };
    EXPECT_EQ(orb_net_detect_jni(5, receive, &gate), 0);
    EXPECT_EQ(orb_net_detect(6, &Receive), kNetToolsBusy);
  }
  EXPECT_EQ(g_reports.Take().front().callback, &gate);
  EXPECT_EQ(orb_net_detect(6, &Receive), 0) << "the last report ends the run";
  EXPECT_EQ(g_reports.Take().front().callback, nullptr);
}

TEST_F(NetToolsTest, MeasuresARealServerOverUdpAndTls) {
  const support::Certificate certificate = support::MakeCertificate();
  support::Peer server({"/usr/bin/turnserver", "-c", "{dir}/turn.conf"},
                       {{"cert.pem", certificate.certificate},
                        {"key.pem", certificate.key},
                        {"turn.conf",
                         "listening-ip=127.0.0.1\nlistening-port={port}\n"
                         "tls-listening-port={tlsPort}\ncert={dir}/cert.pem\npkey={dir}/key.pem\n"
                         "stun-only\nno-cli\nno-dtls\nuserdb={dir}/users.db\nlog-file=stdout\n"
                         "simple-log\npidfile={dir}/turn.pid\n"}});
  const std::string udp = Local(server.Port()), tls = Local(server.TlsPort());
  Settings(R"({"detect":{"requests":5,"pacingMs":1}})");
  while (Detect(udp).result != 0) {  // it serves TCP before UDP
  }
  EXPECT_EQ(Detect(tls, 2).result, kDetectTlsFailed) << "nobody trusts this certificate";
  EXPECT_EQ(orb_set_local_addr_str("127.0.0.1", "::1"), 0);
  Settings(R"({"detect":{"requests":5,"pacingMs":1,"caFile":")" + server.File("cert.pem") + "\"}}");
  const Result report = Detect(tls, 2);
  EXPECT_EQ(report.result, 0);
  EXPECT_EQ(report.discard, 0);
  EXPECT_EQ(orb_set_local_addr_str(nullptr, ""), 0);
  const std::string otherName = "localhost:" + std::to_string(server.TlsPort());
  EXPECT_EQ(Detect(otherName, 2).result, kDetectTlsFailed);
  EXPECT_EQ(Detect("127.0.0.1:1", 2).result, kDetectNoAnswer);
}

}  // namespace
