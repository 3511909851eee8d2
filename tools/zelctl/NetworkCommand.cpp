#include "NetworkCommand.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include <curl/curl.h>
#include <json/value.h>

#include "CommonUtil.h"
#include "Options.h"
#include "Progress.h"
#include "Report.h"
#include "Text.h"
#include "config/config_ref.h"
#include "publicInc/CommonUtilCallbacks.h"
#include "zel_platform/http.h"
#include "zel_platform/nettools.h"
#include "zel_platform/prax.h"
#include "zel_platform/securec.h"

namespace zelctl {
namespace {

using commonutil::CommonUtil;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostServers = 4;
constexpr int kTlsSetting = 69;
constexpr std::int32_t kNoAnswer = 3;  // of a report
constexpr char kNotReported[] = "unknown";
constexpr auto kLook = milliseconds(50);  // between two looks for an interruption
constexpr int kNoMemory = -2;             // of an exchange
constexpr char kPasswordVariable[] = "ZEL_PROXY_PASSWORD";
constexpr unsigned kFirstErrorStatus = 400;
constexpr unsigned kProxyLoginStatus = 407;

// A bar for `value` of `largest`, 20 characters at most; empty for 0.
std::string Bar(double value, double largest) {
  constexpr double kWidth = 20;
  if (value <= 0 || largest <= 0) return "";
  return std::string(static_cast<std::size_t>(std::max(1.0, kWidth * value / largest)), '#');
}

// Waits for something that comes on another thread, until `interrupted`.
template <class Value>
class Awaited {
 public:
  void Add(const Value& value) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_values.push_back(value);
    m_added.notify_all();
  }

  // True when `count` have come.
  bool Await(std::size_t count, const std::atomic<bool>& interrupted,
             Clock::time_point until = Clock::time_point::max()) {
    std::unique_lock<std::mutex> hold(m_lock);
    while (m_values.size() < count && !interrupted && Clock::now() < until) {
      m_added.wait_for(hold, kLook);
    }
    return m_values.size() >= count;
  }
  std::vector<Value> Values() {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_values;
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_added;
  std::vector<Value> m_values;
};

// The receivers outlive what they wait for: never destroyed.
class DetectReceiver : public commonutil::GetNetDetectCallback,
                       public Awaited<tagNET_DETECT_PROCESS_RESULT> {
 public:
  void onResult(tagNET_DETECT_PROCESS_RESULT& result) override { Add(result); }
};

class ProxyReceiver : public commonutil::GetProxyCompletedCallback, public Awaited<std::string> {
 public:
  void onResult(const commonutil::ProxyInfo& proxy) override { Add(proxy.getProxyServer()); }
};

struct NetArguments {
  std::vector<std::string> servers;
  bool overTls = false;
  bool asJson = false;
};

NetArguments ParseNet(const std::vector<std::string>& arguments) {
  NetArguments parsed;
  for (const std::string& argument : arguments) {
    if (argument == "--tls") {
      parsed.overTls = true;
    } else if (argument == "--json") {
      parsed.asJson = true;
    } else if (argument.empty() || argument[0] == '-') {
      throw UsageError("net does not take " + Quoted(argument) + "; see zelctl net --help");
    } else {
      parsed.servers.push_back(argument);
    }
  }
  if (parsed.servers.empty() || parsed.servers.size() > kMostServers) {
    throw UsageError(
        "net needs one to four servers, each a host name or address, maybe with :PORT");
  }
  return parsed;
}

// By the code of a report.
const char* DetectText(std::int32_t result) {
  constexpr const char* kTexts[] = {"answers", "wrong address", "name unknown", "no answer",
                                    "not trusted"};
  const bool isKnown = result >= 0 && result < static_cast<std::int32_t>(std::size(kTexts));
  return isKnown ? kTexts[result] : "failed";
}

// Of a server that no packet was sent to nothing is known to be lost.
bool HasLoss(const tagNET_DETECT_PROCESS_RESULT& report) {
  return report.result == 0 || report.result == kNoAnswer;
}

std::string DetectTable(const std::vector<std::string>& servers,
                        const std::vector<tagNET_DETECT_PROCESS_RESULT>& reports) {
  constexpr auto kRight = Table::Align::kRight;
  Table table({{"server"},
               {"result"},
               {"average", kRight},
               {"min", kRight},
               {"max", kRight},
               {"lost", kRight},
               {""}});
  std::int32_t slowest = 1;
  for (const auto& report : reports) slowest = std::max(slowest, report.averageDelay);
  for (std::size_t i = 0; i < servers.size(); ++i) {
    if (i >= reports.size()) {
      table.Add({servers[i], kNotReported, "-", "-", "-", "-", ""});
      continue;
    }
    const auto& r = reports[i];
    const auto ms = [&r](std::int32_t delay) {
      return r.result == 0 ? std::to_string(delay) + " ms" : "-";
    };
    table.Add({servers[i], DetectText(r.result), ms(r.averageDelay), ms(r.minDelay), ms(r.maxDelay),
               HasLoss(r) ? std::to_string(r.discard) + " %" : "-",
               r.result == 0 ? Bar(r.averageDelay, slowest) : ""});
  }
  return table.Text();
}

Json::Value DetectJson(const std::vector<std::string>& servers,
                       const std::vector<tagNET_DETECT_PROCESS_RESULT>& reports) {
  Json::Value list(Json::arrayValue);
  for (std::size_t i = 0; i < servers.size(); ++i) {
    Json::Value& entry = list.append(Json::Value(Json::objectValue));
    const bool isReported = i < reports.size();
    const tagNET_DETECT_PROCESS_RESULT r = isReported ? reports[i] : tagNET_DETECT_PROCESS_RESULT{};
    // What was not measured is null.
    const auto known = [&](bool isMeasured, std::int32_t value) {
      return isReported && isMeasured ? Json::Value(value) : Json::Value();
    };
    entry["server"] = servers[i];
    entry["result"] = known(true, r.result);
    entry["text"] = isReported ? DetectText(r.result) : kNotReported;
    entry["averageMs"] = known(r.result == 0, r.averageDelay);
    entry["minMs"] = known(r.result == 0, r.minDelay);
    entry["maxMs"] = known(r.result == 0, r.maxDelay);
    entry["lostPercent"] = known(HasLoss(r), r.discard);
  }
  return list;
}

struct ProxyArguments {
  std::string url;
  commonutil::tagZelUtilProxyInfo proxy{};
  bool asJson = false;
};

void SetText(char* field, std::size_t size, const std::string& text) {
  if (strcpy_s(field, size, text.c_str()) != 0) throw UsageError(Quoted(text) + " is too long");
}

void SetProxyAddress(const std::string& text, commonutil::tagZelUtilProxyInfo* proxy) {
  const std::size_t colon = text.rfind(':');
  const char* const end = text.data() + text.size();
  unsigned port = 0;
  const auto [rest, error] = colon == std::string::npos
                                 ? std::from_chars_result{end, std::errc::invalid_argument}
                                 : std::from_chars(text.data() + colon + 1, end, port);
  if (error != std::errc() || rest != end || colon == 0 || port == 0 || port > 65535) {
    throw UsageError("--proxy needs HOST:PORT, not " + Quoted(text));
  }
  SetText(proxy->server, sizeof(proxy->server), text.substr(0, colon));
  proxy->port = port;
}

ProxyArguments ParseProxy(const std::vector<std::string>& arguments) {
  ProxyArguments parsed;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    const bool hasValue = i + 1 < arguments.size();
    if (argument == "--json") {
      parsed.asJson = true;
    } else if (argument == "--proxy" && hasValue) {
      SetProxyAddress(arguments[++i], &parsed.proxy);
    } else if (argument == "--user" && hasValue) {
      SetText(parsed.proxy.userName, sizeof(parsed.proxy.userName), arguments[++i]);
    } else if (argument.empty() || argument[0] == '-' || !parsed.url.empty()) {
      throw UsageError("proxy does not take " + Quoted(argument) + "; see zelctl proxy --help");
    } else {
      parsed.url = argument;
    }
  }
  if (parsed.url.empty()) throw UsageError("proxy needs the URL to reach");
  if (parsed.url.size() >= sizeof(ORB_HTTP_REQUEST::url)) throw UsageError("the URL is too long");
  const char* const password = std::getenv(kPasswordVariable);
  if (password != nullptr &&
      strcpy_s(parsed.proxy.password, sizeof(parsed.proxy.password), password) != 0) {
    throw UsageError(std::string("the password in ") + kPasswordVariable + " is too long");
  }
  return parsed;
}

// One way to the URL.
struct Way {
  bool isProxy;
  int result;  // of the HTTP library: 0 when it gets through, else curl's code or below 0
  unsigned int status;
  double ms;
};

const char* NameOf(const Way& way) { return way.isProxy ? "proxy" : "direct"; }

Way TryWay(const ProxyArguments& arguments, bool throughProxy) {
  ORB_HTTP_REQUEST request = {};
  ORB_HTTP_PROXY proxy = {};
  SetText(request.url, sizeof(request.url), arguments.url);
  if (throughProxy) {
    SetText(proxy.address, sizeof(proxy.address), arguments.proxy.server);
    SetText(proxy.user, sizeof(proxy.user), arguments.proxy.userName);
    SetText(proxy.password, sizeof(proxy.password), arguments.proxy.password);
    proxy.port = static_cast<std::int32_t>(arguments.proxy.port);
    request.proxy = &proxy;
  }
  const Clock::time_point start = Clock::now();
  const int result = orb_http_syn_send_ex(&request, 0);
  const std::chrono::duration<double, std::milli> took = Clock::now() - start;
  PRAX_MemFreeSetNullD(&request.buffer1);
  PRAX_MemFreeSetNullD(&request.buffer2);
  (void)memset_s(&proxy, sizeof(proxy), 0, sizeof(proxy));
  return {throughProxy, result, request.status, took.count()};
}

// Both ways at once; nothing when interrupted. What is under way then ends with the process.
std::optional<std::vector<Way>> TryWays(const ProxyArguments& arguments,
                                        const std::atomic<bool>& interrupted) {
  const std::size_t count = *arguments.proxy.server != '\0' ? 2 : 1;
  const auto tried = std::make_shared<Awaited<Way>>();
  for (std::size_t i = 0; i < count; ++i) {
    std::thread([tried, arguments, i] { tried->Add(TryWay(arguments, i == 1)); }).detach();
  }
  if (!tried->Await(count, interrupted)) return std::nullopt;
  std::vector<Way> ways = tried->Values();
  if (ways.front().isProxy) std::swap(ways.front(), ways.back());
  return ways;
}

std::string ReasonOf(int result) {
  if (result == kNoMemory) return "no memory";
  return result < 0 ? "such a request cannot be sent"
                    : curl_easy_strerror(static_cast<CURLcode>(result));
}

// "direct", "proxy", or nothing when no way is known yet.
std::optional<std::string> Decide(const ProxyArguments& arguments, bool canBeReached,
                                  const std::atomic<bool>& interrupted) {
  CommonUtil& facade = CommonUtil::getInst();
  static ProxyReceiver& receiver = *new ProxyReceiver;
  (void)facade.SetUserInfo(arguments.proxy, arguments.url.c_str(), arguments.url.size());
  (void)facade.GetProxy(&receiver);
  // Nothing ends a question that no way answers.
  const auto until = canBeReached ? Clock::time_point::max() : Clock::now() + kLook;
  if (!receiver.Await(1, interrupted, until)) return std::nullopt;
  return receiver.Values().front().empty() ? "direct" : "proxy";
}

// An answer need not be the server's: "gets through" would say too much.
std::string WayText(const Way& way) {
  if (way.result != 0) return "fails";
  return way.status == kProxyLoginStatus ? "asks for a login" : "answers";
}

std::string WaysTable(const std::vector<Way>& ways) {
  constexpr auto kRight = Table::Align::kRight;
  Table table({{"way"}, {"result"}, {"status", kRight}, {"time", kRight}, {""}});
  double slowest = 1;
  for (const Way& way : ways) slowest = std::max(slowest, way.ms);
  for (const Way& way : ways) {
    table.Add({NameOf(way), WayText(way), way.result == 0 ? std::to_string(way.status) : "-",
               std::to_string(std::lround(way.ms)) + " ms", Bar(way.ms, slowest)});
  }
  std::string text = table.Text();
  for (const Way& way : ways) {
    if (way.result == 0) continue;
    text += std::string(NameOf(way)) + " fails: " + ReasonOf(way.result) + " (code " +
            std::to_string(way.result) + ")\n";
  }
  return text;
}

}  // namespace

bool MeasureServers(const std::vector<std::string>& arguments,
                    const std::atomic<bool>& interrupted) {
  const NetArguments net = ParseNet(arguments);
  if (net.overTls) orb_config_ref_set(kTlsSetting, 1);
  const char* servers[kMostServers] = {};
  for (std::size_t i = 0; i < net.servers.size(); ++i) servers[i] = net.servers[i].c_str();
  static DetectReceiver& receiver = *new DetectReceiver;
  std::optional<Progress> progress("measuring");
  CommonUtil& facade = CommonUtil::getInst();
  int result = facade.SetNetDetectSrvs(servers[0], servers[1], servers[2], servers[3], nullptr,
                                       nullptr, false);
  if (result == 0) result = facade.NetDetect(1, &receiver);
  if (result != 0) {
    progress.reset();
    Complain("the detection does not start, result " + std::to_string(result) +
             "; is a server's name too long? See zelctl explain " + std::to_string(result));
    return false;
  }
  const bool isWhole = receiver.Await(net.servers.size(), interrupted);
  const auto reports = receiver.Values();
  progress.reset();
  const bool isPrinted = Print(net.asJson ? JsonText(DetectJson(net.servers, reports))
                                          : DetectTable(net.servers, reports));
  return isPrinted && isWhole &&
         std::all_of(reports.begin(), reports.end(), [](const auto& r) { return r.result == 0; });
}

bool TryProxy(const std::vector<std::string>& arguments, const std::atomic<bool>& interrupted) {
  const ProxyArguments parsed = ParseProxy(arguments);
  std::optional<Progress> progress("trying");
  const std::optional<std::vector<Way>> tried = TryWays(parsed, interrupted);
  if (!tried) {
    progress.reset();
    Complain("interrupted; no way has been found yet");
    return false;
  }
  const std::vector<Way>& ways = *tried;
  const bool hasProxy = *parsed.proxy.server != '\0';
  const bool canBeReached =
      std::any_of(ways.begin(), ways.end(), [](const Way& way) { return way.result == 0; });
  const std::optional<std::string> decision = Decide(parsed, canBeReached, interrupted);
  progress.reset();
  if (parsed.asJson) {
    Json::Value object(Json::objectValue);
    for (const Way& way : ways) {
      Json::Value& entry = object[NameOf(way)];
      entry["result"] = way.result;
      entry["text"] = way.result == 0 ? WayText(way) : ReasonOf(way.result);
      entry["status"] = way.status;
      entry["ms"] = static_cast<Json::Int64>(std::lround(way.ms));
    }
    object["decision"] = decision ? Json::Value(*decision) : Json::Value();
    return Print(JsonText(object)) && canBeReached;
  }
  std::string text = WaysTable(ways) + "decision: ";
  if (!decision) {
    text += "unknown, no way answers\n";
  } else if (!hasProxy) {
    text += canBeReached ? "direct, no proxy is set\n"
                         : "direct, since no proxy is set, though it does not answer\n";
  } else {
    text += *decision + ", it was the first to answer\n";
  }
  if (hasProxy && ways.back().status >= kFirstErrorStatus) {
    text += "The status through the proxy may be the proxy's own: any answer counts as a way.\n";
  }
  return Print(text) && canBeReached;
}

}  // namespace zelctl
