// The handlers that start a network detection, and the notifications of what it found.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "publicInc/CommonUtilService.h"
#include "publicInc/MessageKeys.h"
#include "publicInc/NetDetectServers.h"
#include "publicInc/ServiceHost.h"
#include "util/Boundary.h"
#include "zel_platform/nettools.h"

namespace key = message_key;
namespace event = message_event;

namespace {

// The keys of the servers, in the order in which the network tools take them.
constexpr const char* kServerKeys[commonutil::NetDetectServers::kCount] = {
    key::kInternetServer, key::kMiddleServer, key::kMediaServer, key::kSbcServer};

// A firewall report has this many entries.
constexpr std::size_t kFirewallEntries = 7;

// The keys of a firewall entry, by its type.
struct FirewallKeys {
  const char* address;
  const char* result;
};
constexpr FirewallKeys kFirewallKeys[] = {{"publicIP", "publicRet"},
                                          {"normalIP", "normalRet"},
                                          {"specIP", "specRet"},
                                          {"specPort", "specPortRet"},
                                          {"normalMedia", "normalMediaRet"}};

// What the firewall lets through, from the results of the first five entries. The order of the
// questions is part of the answer.
const char* ProxyKind(const std::vector<tagFW_MULTI_DETECT_INFO>& entries) {
  const auto failed = [&entries](std::size_t i) { return entries[i].result == 0; };
  if (failed(0) && failed(1) && failed(2) && failed(3) && failed(4)) return "0";
  if (failed(1)) return "1";
  if (failed(2)) return "2";
  return failed(3) ? "3" : "4";
}

// Runs `send` on the process's service; drops the report when there is none. No exception
// reaches the reporting library.
template <class Send>
void WithService(Send send) {
  commonutil::AtBoundary([&] {
    const std::shared_ptr<CommonUtilService> service = commonutil::ServiceHost::GetInst().Pin();
    if (service != nullptr) send(*service);
  });
}

// All that is sent of a detection that failed.
Json::Value BareResult(unsigned int result) {
  Json::Value message(Json::objectValue);
  message[key::kResult] = result;
  return message;
}

}  // namespace

void CommonUtilService::SetNetDetectSrvs(Json::Value& request, const char* fallback) {
  const Json::Value& received = request;
  commonutil::NetDetectServers servers;
  for (std::size_t i = 0; i < servers.kCount; ++i) {
    servers.Set(i, GetJsonString(received[key::kParam], kServerKeys[i]).c_str());
  }
  _makeRetMsgAndSend(servers.Apply(), request, fallback);
}

// The serial number is the detection's argument, so that the host can tell its reports.
void CommonUtilService::NetDetect(Json::Value& request, const char* fallback) {
  int sno = 0;
  GetJsonInt(request, sno, key::kSno);
  const int result = orb_net_detect(sno, &CommonUtilService::onNotifyNetDetectResult);
  _makeRetMsgAndSend(result, request, fallback);
}

void CommonUtilService::onNotifyNetDetectResult(const tagNET_DETECT_PROCESS_RESULT* result) {
  if (result == nullptr) return;
  WithService([result](CommonUtilService& service) {
    Json::Value message = service.Notification(event::kNetDetectResult, event::kNetDetectResultId);
    message[key::kSno] = result->sno;
    Json::Value& param = message[key::kParam];
    param["current_level"] = result->currentLevel;
    param["total_level"] = result->totalLevel;
    param[key::kResult] = result->result;
    param["average_delay"] = result->averageDelay;
    param["max_delay"] = result->maxDelay;
    param["min_delay"] = result->minDelay;
    param["discard"] = result->discard;
    service.SendNotification(message);
  });
}

void CommonUtilService::onNotifyPortDetectResult(const void* report) {
  if (report == nullptr) return;
  WithService([report](CommonUtilService& service) {
    const auto& result = *static_cast<const tagPORT_DETECT_RESULT*>(report);
    Json::Value message =
        service.Notification(event::kPortDetectResult, event::kPortDetectResultId);
    message[key::kSno] = result.sno;
    message[key::kParam][key::kResult] = result.ports.empty() ? 0 : int{result.ports[0].result};
    service.SendNotification(message);
  });
}

void CommonUtilService::onNotifyFwDetect(unsigned int, unsigned int, unsigned int,
                                         std::vector<tagFW_MULTI_DETECT_INFO> entries) {
  if (entries.size() != kFirewallEntries) return;
  WithService([&entries](CommonUtilService& service) {
    Json::Value message = service.Notification(event::kFwDetectResult, event::kFwDetectResultId);
    Json::Value& param = message[key::kParam];
    param["isProxy"] = ProxyKind(entries);
    for (const tagFW_MULTI_DETECT_INFO& entry : entries) {
      if (entry.type >= std::size(kFirewallKeys)) continue;
      const FirewallKeys& keys = kFirewallKeys[entry.type];
      param[keys.address] = entry.address + ":" + std::to_string(entry.port);
      param[keys.result] = int{entry.result};
    }
    service.SendNotification(message);
  });
}

void CommonUtilService::onNotifySiteDetect(unsigned int, unsigned int result, unsigned int,
                                           std::vector<tagBW_MULTI_SITE_DETECT_RESULT> sites) {
  WithService([&](CommonUtilService& service) {
    if (result != 0) return service.SendNotification(BareResult(result));
    Json::Value message =
        service.Notification(event::kSiteDetectResult, event::kSiteDetectResultId);
    Json::Value& param = message[key::kParam];
    param[key::kResult] = 0;
    param["priorityIndex"] = sites.empty() ? 0 : int{getPrioritySite(sites)};
    service.SendNotification(message);
  });
}

void CommonUtilService::onNotifyOptSiteDetect(unsigned int, unsigned int result,
                                              unsigned int preference,
                                              std::vector<tagOPT_MULTI_DETECT_INFO> sites) {
  WithService([&](CommonUtilService& service) {
    if (result != 0) return service.SendNotification(BareResult(result));
    Json::Value message =
        service.Notification(event::kOptSiteDetectResult, event::kOptSiteDetectResultId);
    Json::Value& param = message[key::kParam];
    param[key::kResult] = 0;
    param["isPreferred"] = preference == 0;
    Json::Value& list = param["siteInfo"] = Json::Value(Json::arrayValue);
    for (const tagOPT_MULTI_DETECT_INFO& site : sites) {
      Json::Value& entry = list.append(Json::Value(Json::objectValue));
      entry["siteName"] = site.siteName;
      entry["nodeName"] = site.nodeName;
      entry["ip"] = site.ip;
      entry["port"] = site.port;
      entry["delayBase"] = site.delayBase;
      entry["delay"] = site.delay;
      entry["discard"] = site.discard;
    }
    service.SendNotification(message);
  });
}

unsigned short CommonUtilService::getPrioritySite(
    std::vector<tagBW_MULTI_SITE_DETECT_RESULT>& sites) {
  return std::max_element(sites.begin(), sites.end(),
                          [](const auto& a, const auto& b) { return a.rank < b.rank; })
      ->siteIndex;
}
