#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "DoubleInternals.h"
#include "PlatformDouble.h"
#include "zel_platform/cache.h"
#include "zel_platform/config.h"
#include "zel_platform/http.h"
#include "zel_platform/loghooks.h"
#include "zel_platform/login.h"
#include "zel_platform/nettools.h"

namespace {

using support::Locked;
using support::PlatformCall;

struct NetRecords {
  support::NetScript script;
  std::function<int(ORB_HTTP_REQUEST&)> exchange;
  std::vector<PlatformCall> calls;
  std::map<int, int> settings;
};

int Record(PlatformCall&& call) {
  const Locked<NetRecords> records;
  records->calls.push_back(std::move(call));
  return records->script.result;
}

template <class... Arguments>
int Note(const char* function, Arguments... arguments) {
  PlatformCall call{function, {}, {}};
  support::AddTo(call, arguments...);
  return Record(std::move(call));
}

// One of `10.0.0.0/8` and its like: an address in host byte order belongs to it.
struct Network {
  unsigned int address;
  int prefix;
};

constexpr Network kNotPublic[] = {{0x00000000, 8},  {0x0A000000, 8},  {0x64400000, 10},
                                  {0x7F000000, 8},  {0xA9FE0000, 16}, {0xAC100000, 12},
                                  {0xC0A80000, 16}, {0xE0000000, 3}};

class CacheDouble : public ZELCache {
 public:
  // The next so many stores; none: as at the start.
  void Refuse(int count) {
    std::lock_guard<std::mutex> hold(m_lock);
    if (count == 0) m_values.clear();
    m_refusals = count;
  }
  int Get(const std::string& key, std::shared_ptr<std::string>& out) override {
    std::lock_guard<std::mutex> hold(m_lock);
    const auto entry = m_values.find(key);
    if (entry == m_values.end()) return 1;
    out = entry->second;
    return 0;
  }
  int Put(const std::string& key, const std::shared_ptr<std::string>& value) override {
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_refusals > 0) {
      --m_refusals;
      return 1;
    }
    m_values[key] = value;
    return 0;
  }
  int Remove(const std::string& key) override {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_values.erase(key) == 1 ? 0 : 1;
  }

 private:
  std::mutex m_lock;
  std::map<std::string, std::shared_ptr<std::string>> m_values;
  int m_refusals = 0;
};

CacheDouble& Cache() {
  static CacheDouble* const instance = new CacheDouble;
  return *instance;
}

}  // namespace

ZELCache::~ZELCache() = default;
ZELCache* ZELCache::GetInstance() { return &Cache(); }

int OrbGetGlobalInt32CfgWithDefVal(int number, int defaultValue) {
  const Locked<NetRecords> records;
  const auto entry = records->settings.find(number);
  return entry == records->settings.end() ? defaultValue : entry->second;
}

int orb_http_syn_send_ex(ORB_HTTP_REQUEST* request, int flags) {
  PlatformCall call{"orb_http_syn_send_ex", {request->url}, {request->method, flags}};
  if (const ORB_HTTP_PROXY* proxy = request->proxy) {
    call.texts.insert(call.texts.end(), {proxy->address, proxy->user, proxy->password});
    call.numbers.push_back(proxy->port);
  }
  (void)Record(std::move(call));

  const auto exchange = Locked<NetRecords>()->exchange;
  std::strcpy(request->requestId, "00000000000000000000000000000000");
  request->buffer1 = nullptr;
  request->buffer2 = nullptr;
  if (exchange) return exchange(*request);
  const Locked<NetRecords> records;
  int code = 0;
  if (!records->script.httpCodes.empty()) {
    code = records->script.httpCodes.front();
    records->script.httpCodes.pop_front();
  }
  if (code == 0) request->status = records->script.httpStatus;
  return code;
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
  PlatformCall call{"orb_set_net_detect_srvs", {}, {}};
  for (unsigned int i = 0; i < count; ++i) {
    call.texts.push_back(servers[i].domain);
    call.numbers.push_back(servers[i].mode);
  }
  return Record(std::move(call));
}

int GetNetDetectIps(std::vector<std::string>& list, bool flag) {
  (void)Note(__func__, flag);
  const Locked<NetRecords> records;
  if (records->script.detectIps.empty()) return 1;
  list = records->script.detectIps;
  return 0;
}

bool orb_is_public_ipv4(unsigned int address) {
  const unsigned int value = __builtin_bswap32(address);
  for (const Network& network : kNotPublic) {
    if (((value ^ network.address) >> (32 - network.prefix)) == 0) return false;
  }
  return true;
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

void SetNetScript(const NetScript& script) { Locked<NetRecords>()->script = script; }
void SetHttpExchange(std::function<int(ORB_HTTP_REQUEST&)> exchange) {
  Locked<NetRecords>()->exchange = std::move(exchange);
}
std::vector<PlatformCall> NetCalls() { return Locked<NetRecords>()->calls; }

int CountNet(const std::string& function) {
  int count = 0;
  for (const PlatformCall& call : NetCalls()) count += call.function == function;
  return count;
}
void SetIntegerSetting(int number, int value) { Locked<NetRecords>()->settings[number] = value; }
void RefuseCachePuts(int count) { Cache().Refuse(count); }

void ResetNet() {
  Cache().Refuse(0);
  *Locked<NetRecords>() = {};
}

}  // namespace support
