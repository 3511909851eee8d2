// A detection of four servers on loopback, 40 requests, against the pacing of its requests.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "Ratio.h"
#include "nettools/DetectServer.h"
#include "nettools/StunMessage.h"
#include "zel_platform/nettools.h"

namespace bench {

namespace {

constexpr int kRounds = 7;
constexpr unsigned int kServers = 4;
// What a detection may take beside its pacing.
constexpr double kAllowedMs = 200;

// Answers each request until the process ends; returns the port.
int StartResponder() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const int responder = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (bind(responder, generic, length) != 0 || getsockname(responder, generic, &length) != 0) {
    std::abort();
  }
  std::thread([responder] {
    for (;;) {
      unsigned char message[kStunHeaderBytes];
      sockaddr_in client{};
      socklen_t clientLength = sizeof(client);
      auto* const from = reinterpret_cast<sockaddr*>(&client);
      (void)recvfrom(responder, message, sizeof(message), 0, from, &clientLength);
      message[0] = 0x01;  // a request becomes its success answer
      (void)sendto(responder, message, sizeof(message), 0, from, clientLength);
    }
  }).detach();
  return ntohs(address.sin_port);
}

std::mutex lastLock;
std::condition_variable lastCame;
bool isLast = false;

void TakeReport(const tagNET_DETECT_PROCESS_RESULT* report) {
  if (report->result != 0 || report->discard != 0) std::abort();
  const std::lock_guard<std::mutex> hold(lastLock);
  isLast = report->currentLevel == static_cast<int>(kServers);
  lastCame.notify_one();
}

void Detect() {
  isLast = false;
  if (orb_net_detect(1, TakeReport) != 0) std::abort();
  std::unique_lock<std::mutex> hold(lastLock);
  lastCame.wait(hold, [] { return isLast; });
}

}  // namespace

void BenchDetect() {
  tagNET_DETECT_SRV servers[kServers] = {};
  const int port = StartResponder();
  for (tagNET_DETECT_SRV& server : servers) {
    std::snprintf(server.domain, sizeof(server.domain), "127.0.0.1:%d", port);
  }
  if (orb_set_net_detect_srvs(servers, kServers) != 0) std::abort();
  const DetectOptions settings;
  const auto pacing = kServers * static_cast<unsigned int>(settings.requests) * settings.pacing;
  const double goal =
      (static_cast<double>(pacing.count()) + kAllowedMs) / static_cast<double>(pacing.count());
  Compare({"detection, 4 servers, 40 requests", "40 times its pacing", goal, kRounds, 1}, Detect,
          [&] { std::this_thread::sleep_for(pacing); });
}

}  // namespace bench
