// The facade's calls into proxy detection, network tools, HTTP and login.
#include <cstddef>
#include <string>
#include <vector>

#include "CommonUtil.h"
#include "proxy/proxy_detect.h"
#include "publicInc/CommonUtilCallbacks.h"
#include "publicInc/NetDetectServers.h"
#include "publicInc/ResultCode.h"
#include "util/Boundary.h"
#include "util/FixedText.h"
#include "util/Log.h"
#include "util/SecureWipe.h"
#include "zel_platform/http.h"
#include "zel_platform/login.h"
#include "zel_platform/nettools.h"
#include "zel_platform/securec.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/CommonUtil";
// Where the known detection addresses begin in the platform's list.
constexpr std::size_t kFirstKnownServer = 2;

void LogCopyError(errno_t error) {
  if (error != 0) ZEL_LOG(kError) << "secure func return err: " << error;
}

// Sets what the platform knows, if it does.
void SetKnownServers(NetDetectServers servers, bool flag) {
  std::vector<std::string> list;
  if (GetNetDetectIps(list, flag) != 0 || list.size() < kFirstKnownServer + servers.kCount) return;
  for (std::size_t i = 0; i < servers.kCount; ++i) {
    servers.Set(i, list[kFirstKnownServer + i].c_str());
  }
  (void)servers.Apply();  // the caller's addresses follow, and win
}

}  // namespace

int CommonUtil::SetUserInfo(const tagZelUtilProxyInfo& proxyInfo, const char* url,
                            unsigned long urlLen) {
  if (url == nullptr || urlLen == 0) return kBadParameter;
  return AtBoundary(kFailed, [&] {
    ProxyInfo proxy;
    proxy.setProxyServer(FixedText(proxyInfo.server));
    proxy.setProxyPort(static_cast<std::int32_t>(proxyInfo.port));
    proxy.setProxyAccount(FixedText(proxyInfo.userName));
    std::string password = FixedText(proxyInfo.password);
    const WipeGuard wipe(password);
    proxy.setProxyPassword(password);
    return ProxyDetect::GetInstance().SetUserInfo(proxy, url);
  });
}

int CommonUtil::GetProxy(GetProxyCompletedCallback* callback) {
  return AtBoundary(kFailed, [callback] {
    return static_cast<int>(ProxyDetect::GetInstance().GetProxy(callback));
  });
}

void CommonUtil::NetworkChange(const char* info, unsigned long,
                               GetProxyCompletedCallback* callback) {
  AtBoundary([&] { ProxyDetect::GetInstance().NetworkChange(TextOrEmpty(info), callback); });
}

int CommonUtil::HttpSetProxy(const char* domain, const char* user, const char* password,
                             unsigned short port) {
  return orb_http_set_proxy(domain, user, password, port);
}

int CommonUtil::HttpProxyConnect(unsigned int id, const char* host, unsigned short port) {
  return orb_http_proxy_connect(id, host, port);
}

int CommonUtil::SetLocalIP(const char* first, const char* second) {
  return orb_set_local_addr_str(first, second);
}

int CommonUtil::NetDetect(int type, GetNetDetectCallback* callback) {
  return orb_net_detect_jni(type, &CommonUtil::NetDetectNotify, callback);
}

void CommonUtil::NetDetectNotify(tagNET_DETECT_PROCESS_RESULT& result) {
  auto* const callback = static_cast<GetNetDetectCallback*>(result.callback);
  if (callback != nullptr) AtBoundary([&] { callback->onResult(result); });
}

int CommonUtil::SetNetDetectSrvs(const char* s1, const char* s2, const char* s3, const char* s4,
                                 const char*, const char*, bool flag) {
  NetDetectServers servers;
  AtBoundary([&servers, flag] { SetKnownServers(servers, flag); });
  const char* const given[servers.kCount] = {s1, s2, s3, s4};
  for (std::size_t i = 0; i < servers.kCount; ++i) servers.Set(i, TextOrEmpty(given[i]));
  return servers.Apply();
}

int CommonUtil::UploadAuditFile(const char* path, const char* name, void* user) {
  tagLOGIN_AUDIT_UPLOAD record = {};
  errno_t error = strcpy_s(record.path, sizeof(record.path), path);
  error += strcpy_s(record.name, sizeof(record.name), name);
  record.user = user;
  LogCopyError(error);
  return orb_login_upload_audit_file(&record);
}

int CommonUtil::ReportAuditTask(unsigned int id, bool state, const char* text, void* user) {
  tagLOGIN_AUDIT_REPORT record = {};
  record.id = id;
  record.state = state ? 1 : 0;
  const errno_t error = strcpy_s(record.text, sizeof(record.text), text);
  record.user = user;
  LogCopyError(error);
  return orb_login_report_audit_task(&record);
}

int CommonUtil::QueryAuditTask(unsigned int id, const char* text, void* user) {
  tagLOGIN_AUDIT_QUERY record = {};
  record.id = id;
  const errno_t error = strcpy_s(record.text, sizeof(record.text), text);
  record.user = user;
  LogCopyError(error);
  return orb_login_query_audit_task(&record);
}

void CommonUtil::OnUploadAuditFileCallback(unsigned int, int, void* callback, const void* result) {
  if (callback == nullptr || result == nullptr) return;
  const auto& answer = *static_cast<const tagLOGIN_AUDIT_UPLOAD_RESULT*>(result);
  AtBoundary([&] {
    static_cast<AuditTaskCallback*>(callback)->onUpload({answer.code, answer.text1, answer.text2});
  });
}

void CommonUtil::OnReportAuditTaskCallback(unsigned int id, void* callback, const void* result) {
  if (callback == nullptr || result == nullptr) return;
  const auto& answer = *static_cast<const tagLOGIN_AUDIT_REPORT_RESULT*>(result);
  AtBoundary([&] {
    static_cast<AuditTaskCallback*>(callback)->onReport({answer.value, answer.text, id});
  });
}

void CommonUtil::OnQueryAuditTaskCallback(unsigned int, void* callback, const void* result) {
  if (callback == nullptr || result == nullptr) return;
  const auto& answer = *static_cast<const tagLOGIN_AUDIT_QUERY_RESULT*>(result);
  const std::size_t count = answer.entries == nullptr ? 0 : answer.count;
  AtBoundary([&] {
    std::vector<AuditTaskResultInfo> list;
    list.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      const tagLOGIN_AUDIT_QUERY_ENTRY& entry = answer.entries[i];
      list.push_back({entry.value, TextOrEmpty(entry.text), entry.value8});
    }
    static_cast<AuditTaskCallback*>(callback)->onQuery(list);
  });
}

int CommonUtil::GetWindowsCountryOrRegionData(int&, wchar_t*, int) { return kOk; }

}  // namespace commonutil
