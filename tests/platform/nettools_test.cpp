// Network detection against a real STUN server, and against peers that do not behave.
#include "zel_platform/nettools.h"

#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
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
#include "support/Peer.h"
#include "support/TempDir.h"
#include "zel_platform/loghooks.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Collects the reports of one run.
class Reports {
 public:
  static Reports& Instance() {
    static Reports* const instance = new Reports;
    return *instance;
  }
  static void Receive(const tagNET_DETECT_PROCESS_RESULT* result) { Instance().Add(*result); }
  static void ReceiveJni(tagNET_DETECT_PROCESS_RESULT& result) { Instance().Add(result); }

  std::vector<tagNET_DETECT_PROCESS_RESULT> Await(std::size_t count) {
    std::unique_lock<std::mutex> hold(m_lock);
    m_added.wait(hold, [&] { return m_results.size() >= count; });
    return std::exchange(m_results, {});
  }

 private:
  void Add(const tagNET_DETECT_PROCESS_RESULT& result) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_results.push_back(result);
    m_added.notify_all();
  }

  std::mutex m_lock;
  std::condition_variable m_added;
  std::vector<tagNET_DETECT_PROCESS_RESULT> m_results;
};

// Answers UDP datagrams as a script says.
class UdpPeer {
 public:
  // The answers to the datagram of this number, from 0 on.
  using Script = std::function<std::vector<Bytes>(int number, const Bytes& request)>;

  explicit UdpPeer(Script script)
      : m_script(std::move(script)), m_server(SOCK_DGRAM, [this](int socket) { Serve(socket); }) {}
  std::string Entry() const { return "127.0.0.1:" + std::to_string(m_server.Port()); }

 private:
  void Serve(int socket) {
    Bytes request(2048);
    sockaddr_storage from = {};
    socklen_t size = sizeof(from);
    auto* const sender = reinterpret_cast<sockaddr*>(&from);
    const ssize_t got = ::recvfrom(socket, request.data(), request.size(), 0, sender, &size);
    if (got <= 0) return;
    request.resize(static_cast<std::size_t>(got));
    for (const Bytes& answer : m_script(m_number++, request)) {
      (void)::sendto(socket, answer.data(), answer.size(), 0, sender, size);
    }
  }

  const Script m_script;
  int m_number = 0;
  zelctl::LoopbackServer m_server;
};

// A success without attributes.
Bytes Success(Bytes request) {
  request[0] = 0x01;
  request[1] = 0x01;
  return request;
}

tagNET_DETECT_SRV Server(const std::string& domain, int mode = 0) {
  tagNET_DETECT_SRV server = {};
  std::strcpy(server.domain, domain.c_str());
  server.mode = mode;
  return server;
}

class NetToolsTest : public testing::Test {
 protected:
  ~NetToolsTest() override {
    orb_config_ref_clear();
    const tagNET_DETECT_SRV none[4] = {};
    EXPECT_EQ(orb_set_net_detect_srvs(none, 4), 0);
  }

  void Settings(const std::string& members) {
    support::WriteWholeFile(m_dir.File("platform.json"), members);
    orb_config_set_directory(m_dir.Path());
  }

  // The whole run's reports.
  std::vector<tagNET_DETECT_PROCESS_RESULT> Detect(std::vector<tagNET_DETECT_SRV> servers,
                                                   std::size_t named) {
    servers.resize(4);
    EXPECT_EQ(orb_set_net_detect_srvs(servers.data(), 4), 0);
    EXPECT_EQ(orb_net_detect(77, &Reports::Receive), 0);
    return Reports::Instance().Await(named);
  }

  tagNET_DETECT_PROCESS_RESULT DetectOne(const std::string& domain, int mode = 0) {
    return Detect({Server(domain, mode)}, 1).front();
  }

  const support::TempDir m_dir;
};

TEST(StunMessageTest, OnlyWholeAnswersToBindingRequestsPass) {
  const StunTransactionId id = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  const StunRequest request = BuildStunRequest(id);
  const Bytes good = Success(Bytes(request.begin(), request.end()));
  StunTransactionId found = {};
  EXPECT_TRUE(ParseStunAnswer(good.data(), good.size(), &found));
  EXPECT_EQ(found, id);
  EXPECT_FALSE(ParseStunAnswer(request.data(), request.size(), &found)) << "its own request";

  // An attribute of 5 bytes, padded, in a message that says so.
  Bytes attribute = good;
  attribute[3] = 12;
  attribute.insert(attribute.end(), {0x80, 0x22, 0, 5, 'a', 'b', 'c', 'd', 'e', 0, 0, 0});
  EXPECT_TRUE(ParseStunAnswer(attribute.data(), attribute.size(), &found));
  for (std::size_t size = 0; size < attribute.size(); ++size) {
    EXPECT_FALSE(ParseStunAnswer(attribute.data(), size, &found)) << size;
  }
  struct Damage {
    std::size_t at;
    unsigned char value;
  };
  for (const Damage& damage : {Damage{0, 0x81}, Damage{1, 0x02}, Damage{3, 11}, Damage{3, 16},
                               Damage{4, 0x20}, Damage{23, 9}, Damage{22, 0xFF}}) {
    Bytes damaged = attribute;
    damaged[damage.at] = damage.value;
    EXPECT_FALSE(ParseStunAnswer(damaged.data(), damaged.size(), &found)) << damage.at;
  }
}

TEST(DetectEntryTest, NamesAHostAndMaybeAPort) {
  struct Case {
    const char* text;
    const char* host;
    int port;
  };
  for (const Case& c :
       {Case{"a.example", "a.example", 0}, Case{"a:1", "a", 1}, Case{"[::1]:65535", "::1", 65535},
        Case{"[::1]", "::1", 0}, Case{"2001:db8::1", "2001:db8::1", 0}}) {
    DetectEntry entry;
    EXPECT_TRUE(ParseDetectEntry(c.text, &entry)) << c.text;
    EXPECT_EQ(entry.host, c.host);
    EXPECT_EQ(entry.port, c.port);
  }
  for (const char* text :
       {"", ":80", "a:", "a:0", "a:65536", "a:-1", "[::1", "[::1]x", "a:99999999999"}) {
    DetectEntry entry;
    EXPECT_FALSE(ParseDetectEntry(text, &entry)) << text;
  }
}

std::atomic<int> dnsErrors{0};

TEST_F(NetToolsTest, ReportsEachNamedServerInTurn) {
  Settings(R"({"detect":{"requests":4,"pacingMs":1,"timeoutMs":50}})");
  dnsErrors = 0;
  orb_dns_set_log_level(3);
  orb_dns_register_log_func([](const char*) { ++dnsErrors; });
  UdpPeer half([](int number, const Bytes& request) {
    return number % 2 == 0 ? std::vector<Bytes>{Success(request)} : std::vector<Bytes>{};
  });
  UdpPeer silent([](int, const Bytes&) { return std::vector<Bytes>{}; });
  const auto reports =
      Detect({Server(half.Entry()), Server("name.invalid"), Server(""), Server(silent.Entry())}, 3);
  orb_dns_register_log_func(nullptr);
  const int results[] = {0, kDetectNotResolved, kDetectNoAnswer};
  const int lost[] = {50, 100, 100};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(reports[i].sno, 77);
    EXPECT_EQ(reports[i].currentLevel, i + 1);
    EXPECT_EQ(reports[i].totalLevel, 3);
    EXPECT_EQ(reports[i].result, results[i]);
    EXPECT_EQ(reports[i].discard, lost[i]);
    EXPECT_LE(reports[i].minDelay, reports[i].averageDelay);
    EXPECT_LE(reports[i].averageDelay, reports[i].maxDelay);
  }
  EXPECT_GE(dnsErrors.load(), 1);
}

// A peer that floods the run does not hold it up either.
TEST_F(NetToolsTest, OnlyAnswersToItsOwnRequestsCountAndEachOnce) {
  Settings(R"({"detect":{"requests":3,"pacingMs":1,"timeoutMs":50}})");
  using Answers = std::vector<Bytes>;
  const auto again = [](int, const Bytes& r) {
    return Answers{Success(r), Success(r), Success(r)};
  };
  const auto rubbish = [](int, const Bytes&) {
    return Answers{Bytes(40, 0xA5), Bytes(2000, 1), Bytes(1, 0)};
  };
  const auto otherTransaction = [](int, Bytes r) {
    r[19] = static_cast<unsigned char>(r[19] ^ 1U);
    return Answers{Success(r)};
  };
  const auto echo = [](int, const Bytes& r) { return Answers{r}; };
  const auto flood = [](int number, const Bytes&) {
    return Answers(number == 0 ? 20000 : 0, Bytes(30, 0x55));
  };
  const std::pair<UdpPeer::Script, bool> cases[] = {
      {again, true}, {rubbish, false}, {otherTransaction, false}, {echo, false}, {flood, false}};
  for (const auto& [script, counts] : cases) {
    UdpPeer peer(script);
    const auto report = DetectOne(peer.Entry());
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
  EXPECT_EQ(orb_net_detect(1, &Reports::Receive), kNetToolsNoServers);
  EXPECT_EQ(orb_set_net_detect_srvs(nullptr, 4), kNetToolsBadArgument);
  tagNET_DETECT_SRV servers[4] = {};
  EXPECT_EQ(orb_set_net_detect_srvs(servers, 3), kNetToolsBadArgument);
  std::memset(servers[3].domain, 'x', sizeof(servers[3].domain));  // no NUL
  EXPECT_EQ(orb_set_net_detect_srvs(servers, 4), kNetToolsBadArgument);

  std::mutex gate;
  UdpPeer held([&gate](int, const Bytes& request) {
    const std::lock_guard<std::mutex> wait(gate);
    return std::vector<Bytes>{Success(request)};
  });
  servers[3] = Server(held.Entry());
  ASSERT_EQ(orb_set_net_detect_srvs(servers, 4), 0);
  int mark = 0;
  {
    const std::lock_guard<std::mutex> closed(gate);
    EXPECT_EQ(orb_net_detect_jni(5, &Reports::ReceiveJni, &mark), 0);
    EXPECT_EQ(orb_net_detect(6, &Reports::Receive), kNetToolsBusy);
  }
  const auto report = Reports::Instance().Await(1).front();
  EXPECT_EQ(report.callback, &mark);
  EXPECT_EQ(report.sno, 5);
  EXPECT_EQ(orb_net_detect(6, &Reports::Receive), 0) << "the last report ends the run";
  EXPECT_EQ(Reports::Instance().Await(1).front().callback, nullptr);
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
  const std::string udp = "127.0.0.1:" + std::to_string(server.Port());
  const std::string tls = "127.0.0.1:" + std::to_string(server.TlsPort());
  Settings(R"({"detect":{"requests":5,"pacingMs":1}})");
  while (DetectOne(udp).result != 0) {  // it serves TCP before UDP
  }
  EXPECT_EQ(DetectOne(udp).discard, 0);
  EXPECT_EQ(DetectOne(tls, 2).result, kDetectTlsFailed) << "nobody trusts this certificate";
  EXPECT_EQ(orb_set_local_addr_str("127.0.0.1", "::1"), 0);
  Settings(R"({"detect":{"requests":5,"pacingMs":1,"caFile":")" + server.File("cert.pem") + "\"}}");
  const auto report = DetectOne(tls, 2);
  EXPECT_EQ(report.result, 0);
  EXPECT_EQ(report.discard, 0);
  EXPECT_EQ(orb_set_local_addr_str(nullptr, ""), 0);
  // A name that the certificate does not have.
  EXPECT_EQ(DetectOne("localhost:" + std::to_string(server.TlsPort()), 2).result, kDetectTlsFailed);
  EXPECT_EQ(DetectOne("127.0.0.1:1", 2).result, kDetectNoAnswer);
}

}  // namespace
