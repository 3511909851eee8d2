// Network detection: the servers, the one run at a time, and its reports.
#include "zel_platform/nettools.h"

#include <arpa/inet.h>
#include <signal.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

#include "config/settings.h"
#include "nettools/DetectServer.h"
#include "nettools/nettools_ref.h"

namespace {

using std::chrono::milliseconds;
using Report = std::function<void(tagNET_DETECT_PROCESS_RESULT&)>;

constexpr unsigned int kServers = 4;
constexpr std::int32_t kTlsMode = 2;
constexpr std::size_t kKnownAddresses = 64;  // as many as the settings may list
// A fourth of the 20 seconds that a run may take, with time to report.
constexpr milliseconds kServerBudget{4900};

struct NetTools {
  std::mutex lock;
  std::vector<tagNET_DETECT_SRV> servers;
  std::vector<std::string> localAddresses;
  bool isRunning = false;

  std::atomic<PortDetectReceiver> port{nullptr};
  std::atomic<FwDetectReceiver> firewall{nullptr};
  std::atomic<SiteDetectReceiver> site{nullptr};
  std::atomic<OptDetectReceiver> optimalSite{nullptr};
};

NetTools& Tools() {
  static NetTools* const instance = new NetTools;
  return *instance;
}

struct Network {
  std::uint32_t address;  // host byte order
  int bits;
};

constexpr Network kNotPublic[] = {
    {0x00000000, 8},   // 0/8
    {0x0A000000, 8},   // 10/8
    {0x64400000, 10},  // 100.64/10
    {0x7F000000, 8},   // 127/8
    {0xA9FE0000, 16},  // 169.254/16
    {0xAC100000, 12},  // 172.16/12
    {0xC0A80000, 16},  // 192.168/16
    {0xE0000000, 3},   // 224/3, with the invalid 0xFFFFFFFF
};

// A setting within its limits; what lies outside counts as the default.
int Setting(const char* path, int defaultValue, int lowest, int highest) {
  const int value = orb_config_int(path, defaultValue);
  return value < lowest || value > highest ? defaultValue : value;
}

DetectOptions ReadOptions(bool overTls, const std::vector<std::string>& localAddresses) {
  constexpr int kHighestPort = 65535;
  DetectOptions options;
  options.requests = Setting("detect.requests", options.requests, 1, 100);
  options.pacing = milliseconds(Setting("detect.pacingMs", 20, 0, 1000));
  options.timeout = milliseconds(Setting("detect.timeoutMs", 1000, 1, 5000));
  options.overTls = overTls;
  options.defaultPort =
      static_cast<std::uint16_t>(overTls ? Setting("detect.tlsPort", 5349, 1, kHighestPort)
                                         : Setting("detect.udpPort", 3478, 1, kHighestPort));
  options.caFile = orb_config_text("detect.caFile", "");
  options.localAddress = localAddresses;
  return options;
}

void BlockSignals() {
  sigset_t all;
  (void)::sigfillset(&all);
  (void)::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

void EndRun() {
  NetTools& tools = Tools();
  const std::lock_guard<std::mutex> hold(tools.lock);
  tools.isRunning = false;
}

// Without memory a server counts as one that does not answer.
DetectMeasurement Measure(const tagNET_DETECT_SRV& server,
                          const std::vector<std::string>& localAddresses) noexcept try {
  return MeasureDetectServer(server.domain, ReadOptions(server.mode == kTlsMode, localAddresses),
                             DetectClock::now() + kServerBudget);
} catch (...) {
  DetectMeasurement failed;
  failed.result = kDetectNoAnswer;
  return failed;
}

// The run has ended before its last report is delivered: who gets that may start the next one.
void Run(const std::vector<tagNET_DETECT_SRV>& servers,
         const std::vector<std::string>& localAddresses, std::int32_t number,
         const Report& report) {
  const auto total = static_cast<std::int32_t>(servers.size());
  for (std::int32_t level = 1; level <= total; ++level) {
    const DetectMeasurement measured =
        Measure(servers[static_cast<std::size_t>(level - 1)], localAddresses);
    tagNET_DETECT_PROCESS_RESULT result = {number,
                                           level,
                                           total,
                                           measured.result,
                                           measured.average,
                                           measured.maximum,
                                           measured.minimum,
                                           measured.discard,
                                           nullptr};
    if (level == total) EndRun();
    report(result);
  }
}

int Start(std::int32_t number, Report report) {
  NetTools& tools = Tools();
  std::vector<tagNET_DETECT_SRV> servers;
  std::vector<std::string> localAddresses;
  {
    const std::lock_guard<std::mutex> hold(tools.lock);
    if (tools.isRunning) return kNetToolsBusy;
    servers = tools.servers;
    if (servers.empty()) return kNetToolsNoServers;
    localAddresses = tools.localAddresses;
    tools.isRunning = true;
  }
  try {
    std::thread([servers = std::move(servers), localAddresses = std::move(localAddresses), number,
                 report = std::move(report)] {
      BlockSignals();
      Run(servers, localAddresses, number, report);
    }).detach();
  } catch (const std::exception&) {  // no thread, or no memory for one
    EndRun();
    return kNetToolsNoThread;
  }
  return 0;
}

}  // namespace

int orb_net_detect(int sno, void (*onResult)(const tagNET_DETECT_PROCESS_RESULT*)) {
  if (onResult == nullptr) return kNetToolsBadArgument;
  return Start(sno, [onResult](tagNET_DETECT_PROCESS_RESULT& result) { onResult(&result); });
}

int orb_net_detect_jni(int type, void (*onResult)(tagNET_DETECT_PROCESS_RESULT&), void* callback) {
  if (onResult == nullptr) return kNetToolsBadArgument;
  return Start(type, [onResult, callback](tagNET_DETECT_PROCESS_RESULT& result) {
    result.callback = callback;
    onResult(result);
  });
}

int orb_set_net_detect_srvs(const tagNET_DETECT_SRV* servers, unsigned int count) {
  if (servers == nullptr || count != kServers) return kNetToolsBadArgument;
  std::vector<tagNET_DETECT_SRV> named;
  for (unsigned int i = 0; i < count; ++i) {
    const std::size_t length = ::strnlen(servers[i].domain, sizeof(servers[i].domain));
    if (length == sizeof(servers[i].domain)) return kNetToolsBadArgument;
    if (length != 0) named.push_back(servers[i]);
  }
  NetTools& tools = Tools();
  const std::lock_guard<std::mutex> hold(tools.lock);
  tools.servers = std::move(named);
  return 0;
}

int GetNetDetectIps(std::vector<std::string>& list, bool /*flag*/) {
  std::vector<std::string> known;
  while (known.size() < kKnownAddresses) {
    const std::string path = "detect.addresses." + std::to_string(known.size());
    std::string address = orb_config_text(path.c_str(), "");
    if (address.empty()) break;
    known.push_back(std::move(address));
  }
  if (known.empty()) return kNetToolsNoServers;
  list = std::move(known);
  return 0;
}

bool orb_is_public_ipv4(unsigned int address) {
  const std::uint32_t value = ::ntohl(address);
  for (const Network& network : kNotPublic) {
    if ((value ^ network.address) >> (32 - network.bits) == 0) return false;
  }
  return true;
}

int orb_set_local_addr_str(const char* first, const char* second) {
  std::vector<std::string> addresses;
  for (const char* text : {first, second}) {
    if (text != nullptr && *text != '\0') addresses.emplace_back(text);
  }
  NetTools& tools = Tools();
  const std::lock_guard<std::mutex> hold(tools.lock);
  tools.localAddresses = std::move(addresses);
  return 0;
}

void orb_net_tools_reg_port(PortDetectReceiver receiver) { Tools().port.store(receiver); }
void orb_net_tools_reg_fw(FwDetectReceiver receiver) { Tools().firewall.store(receiver); }
void orb_net_tools_reg_site(SiteDetectReceiver receiver) { Tools().site.store(receiver); }
void orb_net_tools_reg_opt(OptDetectReceiver receiver) { Tools().optimalSite.store(receiver); }

void orb_net_tools_ref_port(const tagPORT_DETECT_RESULT& report) {
  if (const PortDetectReceiver receiver = Tools().port.load()) receiver(&report);
}

void orb_net_tools_ref_fw(unsigned int id, unsigned int result, unsigned int flag,
                          const std::vector<tagFW_MULTI_DETECT_INFO>& entries) {
  if (const FwDetectReceiver receiver = Tools().firewall.load())
    receiver(id, result, flag, entries);
}

void orb_net_tools_ref_site(unsigned int id, unsigned int result, unsigned int flag,
                            const std::vector<tagBW_MULTI_SITE_DETECT_RESULT>& sites) {
  if (const SiteDetectReceiver receiver = Tools().site.load()) receiver(id, result, flag, sites);
}

void orb_net_tools_ref_opt(unsigned int id, unsigned int result, unsigned int preference,
                           const std::vector<tagOPT_MULTI_DETECT_INFO>& sites) {
  if (const OptDetectReceiver receiver = Tools().optimalSite.load()) {
    receiver(id, result, preference, sites);
  }
}
