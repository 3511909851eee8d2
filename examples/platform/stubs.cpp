// What a platform may leave for later: every function of these headers does the least that the
// contract allows. Nothing is tracked, no server is in reach, no setting is set.
#include <map>
#include <mutex>

#include "zel_platform/cache.h"
#include "zel_platform/config.h"
#include "zel_platform/http.h"
#include "zel_platform/loghooks.h"
#include "zel_platform/login.h"
#include "zel_platform/nettools.h"
#include "zel_platform/track.h"

namespace {

constexpr int kUnavailable = 1;

// No stub: the config cache answers from it. Never destroyed, as everything a late thread may use.
class MemoryCache : public ZELCache {
 public:
  int Get(const std::string& key, std::shared_ptr<std::string>& out) override {
    std::lock_guard<std::mutex> hold(m_lock);
    const auto entry = m_values.find(key);
    if (entry == m_values.end()) return 1;
    out = entry->second;
    return 0;
  }
  int Put(const std::string& key, const std::shared_ptr<std::string>& value) override {
    std::lock_guard<std::mutex> hold(m_lock);
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
};

}  // namespace

ZELCache::~ZELCache() = default;
ZELCache* ZELCache::GetInstance() {
  static ZELCache* const instance = new MemoryCache;
  return instance;
}

int OrbGetGlobalInt32CfgWithDefVal(int, int defaultValue) { return defaultValue; }

// No exchange gets through, so no way to a server is ever found.
int orb_http_syn_send_ex(ORB_HTTP_REQUEST* request, int) {
  request->buffer1 = nullptr;
  request->buffer2 = nullptr;
  request->status = 0;
  return kUnavailable;
}
int orb_http_set_proxy(const char*, const char*, const char*, unsigned short) { return 0; }
int orb_http_proxy_connect(unsigned int, const char*, unsigned short) { return kUnavailable; }

int orb_net_detect(int, void (*)(const tagNET_DETECT_PROCESS_RESULT*)) { return kUnavailable; }
int orb_net_detect_jni(int, void (*)(tagNET_DETECT_PROCESS_RESULT&), void*) { return kUnavailable; }
int orb_set_net_detect_srvs(const tagNET_DETECT_SRV*, unsigned int) { return 0; }
int GetNetDetectIps(std::vector<std::string>&, bool) { return kUnavailable; }
bool orb_is_public_ipv4(unsigned int) { return true; }
int orb_set_local_addr_str(const char*, const char*) { return 0; }

int orb_login_upload_audit_file(const tagLOGIN_AUDIT_UPLOAD*) { return kUnavailable; }
int orb_login_report_audit_task(const tagLOGIN_AUDIT_REPORT*) { return kUnavailable; }
int orb_login_query_audit_task(const tagLOGIN_AUDIT_QUERY*) { return kUnavailable; }
int orb_login_set_smartroom_param(const char*) { return 0; }
int orb_confctrl_set_terminal_public_sdk_param(const tagCONFCTRL_TERMINAL_PUBLIC_SDK*) { return 0; }

void orb_dns_register_log_func(void (*)(const char*)) {}
void orb_dns_set_log_level(int) {}
void orb_websocket_reg_log_fn(void (*)(const char*)) {}

int InitUnifiedTrack(int, int, int, const char*, const char*) { return 0; }
int Track_Uninit() { return 0; }
int Track_UpdateLogPath(int, int, int, const char*) { return 0; }
int Track_AddUserTrack(const UTEventRecord*) { return 0; }
int Track_StartEvent(const char*, unsigned long) { return 0; }
int Track_FinishEvent(const char*, const UTEventRecord*, unsigned long) { return 0; }
int Track_AddSubEvent(const char*, const UTSubEventRecord*, unsigned long) { return 0; }
int Track_AddMediaTrack(const UTEventRecord*, bool) { return 0; }
int Track_UploadUserTrack() { return 0; }
int Track_ConfigCustomParam(int, const void*) { return 0; }
int Track_ConfigTanloContextPublicParam(const UTContextRecord*) { return 0; }
int Track_ConfigPublicSdkParam(const UTPublicSdkRecord*) { return 0; }
int MediaTrack_AddDataConfDotData(unsigned int, const char*, bool) { return 0; }
int MediaTrack_SetCpuAndMemoryInfo(const UTCpuMemoryRecord*) { return 0; }
void Track_MsgDotCount(int) {}
void Track_ErrorAnalyze(const char*, const char*) {}
void Track_AddTraceApiLog(int, int, const char*, ...) {}
void SetErrTrackCallback(void (*)(const char*)) {}
void setAddCacheFun(int (*)(const void*, int), int (*)(const char*, void*, int*)) {}
void IntelligentAnalyseDoStubToLog(const char*, const char*, int, const char*, const char*, ...) {}
