// The proxy detection: what its calls cost beside encryption, logging and the exchange itself.
#include <sys/socket.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "CommonUtil.h"
#include "LoopbackServer.h"
#include "Ratio.h"
#include "util/Log.h"
#include "util/PublicUtil.h"
#include "util/Statistics.h"
#include "zel_platform/http.h"
#include "zel_platform/prax.h"

namespace bench {

namespace {

using commonutil::CommonUtil;
using commonutil::Counter;
using commonutil::PublicUtil;
using commonutil::Statistics;

constexpr char kLogFile[] = "bench/proxy_bench";
constexpr int kRounds = 9;
constexpr int kCalls = 2000;
constexpr int kExchanges = 50;
constexpr int kDecidedReplies = 100;
constexpr std::uint32_t kDeadPort = 1;

class Answer : public commonutil::GetProxyCompletedCallback {
 public:
  void onResult(const commonutil::ProxyInfo&) override {
    const std::lock_guard<std::mutex> hold(m_lock);
    ++m_count;
    m_came.notify_one();
  }
  void Await(int count) {
    std::unique_lock<std::mutex> hold(m_lock);
    m_came.wait(hold, [&] { return m_count >= count; });
    m_count = 0;
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_came;
  int m_count = 0;
};

commonutil::tagZelUtilProxyInfo DeadProxy() {
  commonutil::tagZelUtilProxyInfo proxy = {};
  std::strcpy(proxy.server, "127.0.0.1");
  proxy.port = kDeadPort;
  std::strcpy(proxy.password, "secret");
  return proxy;
}

void LogOneLine(const char* text) { ZEL_LOG_DATA(kInfo) << text << 1 << " " << text; }

// What SetUserInfo must do: encrypt the password, decrypt it three times, write a line.
void EncryptAndLog() {
  const auto& cipher = PublicUtil::getEncryptUtilsInst();
  const std::string secret = cipher.EncryptThenBase64Encode("secret");
  for (int i = 0; i < 3; ++i) (void)cipher.Base64DecodeThenDecrypt(secret);
  LogOneLine("<in> proxy=127.0.0.1 1  psdnum=6 serverURL=");
}

void ExchangeDirectly(const std::string& url) {
  ORB_HTTP_REQUEST request = {};
  std::strcpy(request.url, url.c_str());
  if (orb_http_syn_send_ex(&request, 0) != 0) std::abort();
  PRAX_MemFreeSetNullD(&request.buffer1);
  PRAX_MemFreeSetNullD(&request.buffer2);
}

}  // namespace

void BenchProxy() {
  zelctl::LoopbackServer origin(SOCK_STREAM, [](int client) {
    zelctl::LoopbackRequest request;
    if (zelctl::ReadRequest(client, &request)) zelctl::SendAnswer(client, "200 OK", "", "");
  });
  const std::string url = "http://127.0.0.1:" + std::to_string(origin.Port()) + "/";
  const commonutil::tagZelUtilProxyInfo proxy = DeadProxy();
  CommonUtil& facade = CommonUtil::getInst();
  Answer answer;
  (void)facade.SetUserInfo(proxy, url.c_str(), url.size());

  Compare(
      {"proxy: GetProxy until its answer", "the exchange alone, once", 0, kRounds, kExchanges},
      [&] {
        for (int i = 0; i < kExchanges; ++i) {
          facade.NetworkChange("", 0, &answer);
          answer.Await(1);
        }
      },
      [&] {
        for (int i = 0; i < kExchanges; ++i) ExchangeDirectly(url);
      });

  const std::uint64_t before = Statistics::Read(Counter::kProxyProbes);
  for (int i = 0; i < kDecidedReplies; ++i) (void)facade.GetProxy(&answer);
  PrintFigure("proxy: probes of 100 decided replies",
              static_cast<double>(Statistics::Read(Counter::kProxyProbes) - before));

  Compare(
      {"proxy: SetUserInfo, same settings", "its encryption and one log line", 0, kRounds, kCalls},
      [&] {
        for (int i = 0; i < kCalls; ++i) (void)facade.SetUserInfo(proxy, url.c_str(), url.size());
      },
      [&] {
        for (int i = 0; i < kCalls; ++i) EncryptAndLog();
      });
  Compare(
      {"proxy: GetProxy, decided", "one log line", 0, kRounds, kCalls},
      [&] {
        for (int i = 0; i < kCalls; ++i) (void)facade.GetProxy(&answer);
      },
      [&] {
        for (int i = 0; i < kCalls; ++i) LogOneLine("GetProxy return: SUCCESS: ");
      });
}

}  // namespace bench
