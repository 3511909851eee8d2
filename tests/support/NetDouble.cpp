#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "cache/cache_ref.h"
#include "zel_platform/config.h"
#include "zel_platform/http.h"
#include "zel_platform/loghooks.h"
#include "zel_platform/login.h"
#include "zel_platform/nettools.h"

namespace {

using support::Locked;
using support::PlatformCall;

struct NetRecords : support::NetScript {
  std::function<int(ORB_HTTP_REQUEST&)> exchange;
  std::vector<PlatformCall> calls;
  std::map<int, int> settings;
};

template <class... Arguments>
int Note(const char* function, const Arguments&... arguments) {
  return support::NoteIn<NetRecords>(function, arguments...);
}

}  // namespace

namespace support {

void Add(PlatformCall& call, const std::vector<tagNET_DETECT_SRV>& servers) {
  for (const tagNET_DETECT_SRV& server : servers) {
    Add(call, server.domain);
    Add(call, server.mode);
  }
}

}  // namespace support

int OrbGetGlobalInt32CfgWithDefVal(int number, int defaultValue) {
  const Locked<NetRecords> records;
  const auto entry = records->settings.find(number);
  return entry == records->settings.end() ? defaultValue : entry->second;
}

int orb_http_syn_send_ex(ORB_HTTP_REQUEST* request, int) {
  (void)Note(__func__);
  std::strcpy(request->requestId, "00000000000000000000000000000000");
  request->status = 200;
  const auto exchange = Locked<NetRecords>()->exchange;
  return exchange ? exchange(*request) : 0;
}
int orb_http_set_proxy(const char* domain, const char* user, const char* password,
                       unsigned short port) {
  return Note(__func__, domain, user, password, port);
}
int orb_http_proxy_connect(unsigned int id, const char* host, unsigned short port) {
  return Note(__func__, host, id, port);
}

// The detections report nothing by themselves.
int orb_net_detect(int sno, void (*)(const tagNET_DETECT_PROCESS_RESULT*)) {
  return Note(__func__, sno);
}
int orb_net_detect_jni(int type, void (*)(tagNET_DETECT_PROCESS_RESULT&), void*) {
  return Note(__func__, type);
}
int orb_set_net_detect_srvs(const tagNET_DETECT_SRV* servers, unsigned int count) {
  return Note(__func__, std::vector<tagNET_DETECT_SRV>(servers, servers + count));
}
int GetNetDetectIps(std::vector<std::string>& list, bool flag) {
  (void)Note(__func__, flag);
  const auto ips = Locked<NetRecords>()->detectIps;
  if (!ips.empty()) list = ips;
  return ips.empty() ? 1 : 0;
}
// Knows the private networks that the tests use, and what is no address at all.
bool orb_is_public_ipv4(unsigned int address) {
  unsigned char octets[sizeof(address)];
  std::memcpy(octets, &address, sizeof(address));
  return octets[0] != 10 && !(octets[0] == 192 && octets[1] == 168) && octets[0] < 224;
}
int orb_set_local_addr_str(const char* first, const char* second) {
  return Note(__func__, first, second);
}

int orb_login_upload_audit_file(const tagLOGIN_AUDIT_UPLOAD* record) {
  return Note(__func__, record->path, record->name);
}
int orb_login_report_audit_task(const tagLOGIN_AUDIT_REPORT* record) {
  return Note(__func__, record->text, record->id, record->state);
}
int orb_login_query_audit_task(const tagLOGIN_AUDIT_QUERY* record) {
  return Note(__func__, record->text, record->id);
}
int orb_login_set_smartroom_param(const char* text) { return Note(__func__, text); }
int orb_confctrl_set_terminal_public_sdk_param(const tagCONFCTRL_TERMINAL_PUBLIC_SDK* record) {
  return Note(__func__, record->uuid, record->account, record->gantryIp, record->sbcIp);
}

void orb_dns_register_log_func(void (*log)(const char* text)) { (void)Note(__func__, log); }
void orb_dns_set_log_level(int level) { (void)Note(__func__, level); }
void orb_websocket_reg_log_fn(void (*log)(const char* text)) { (void)Note(__func__, log); }

namespace support {

void SetNetScript(const NetScript& script) {
  static_cast<NetScript&>(*Locked<NetRecords>()) = script;
}
void SetHttpExchange(std::function<int(ORB_HTTP_REQUEST&)> exchange) {
  Locked<NetRecords>()->exchange = std::move(exchange);
}
std::vector<PlatformCall> NetCalls() { return Locked<NetRecords>()->calls; }
int CountNet(const std::string& function) { return CountOf(function, NetCalls()); }
void SetIntegerSetting(int number, int value) { Locked<NetRecords>()->settings[number] = value; }

void ResetNet() {
  orb_cache_ref_reset();
  *Locked<NetRecords>() = {};
}

}  // namespace support
