// The handlers that deal with the user's HTTP proxy.
#include <new>
#include <string>

#include "CommonUtil.h"
#include "publicInc/CommonUtilService.h"
#include "publicInc/JsonAccess.h"
#include "publicInc/MessageKeys.h"
#include "publicInc/ProxyReply.h"
#include "publicInc/ResultCode.h"
#include "util/Log.h"
#include "util/ScopeGuard.h"
#include "util/SecureWipe.h"
#include "util/UrlText.h"
#include "zel_platform/http.h"
#include "zel_platform/securec.h"

namespace key = message_key;

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilService";
constexpr int kHighestPort = 65535;

}  // namespace

void CommonUtilService::SetUserInfo(Json::Value& request, const char*) {
  commonutil::tagZelUtilProxyInfo record;
  const commonutil::ScopeGuard wipe(
      [&record] { (void)memset_s(&record, sizeof(record), 0, sizeof(record)); });
  std::string serverURL;
  ConvertJsonToUserInfo(AsConst(request)[key::kParam], record, serverURL);
  ZEL_LOG_DATA(kInfo) << "SetUserInfo in cmd:" << request[key::kCmd].asUInt()
                      << ", sno:" << UnsignedOrZero(AsConst(request)[key::kSno])
                      << ", description:" << GetJsonString(request, key::kDescription)
                      << ", serverURL:" << commonutil::WithoutCredentials(serverURL)
                      << ", proxyServer:" << commonutil::WithoutCredentials(record.server)
                      << ", proxyPort:" << record.port << ", proxyAccount:" << record.userName
                      << ", proxyAccPswd:";
  const int result =
      commonutil::CommonUtil::getInst().SetUserInfo(record, serverURL.c_str(), serverURL.size());
  SendReply(ComposeReply(result, request, nullptr));
}

void CommonUtilService::GetProxy(Json::Value& request, const char*) {
  ZEL_LOG_DATA(kInfo) << "GetProxy in sno:" << UnsignedOrZero(AsConst(request)[key::kSno])
                      << ", description:" << GetJsonString(request, key::kDescription)
                      << ", cmd:" << request[key::kCmd].asUInt();
  const ProxyCallbackHandover handover(std::unique_ptr<CommonUtilProxyCallback>(
      new (std::nothrow) CommonUtilGetProxyCallback(weak_from_this(), request)));
  (void)commonutil::CommonUtil::getInst().GetProxy(handover.Callback());
}

void CommonUtilService::NetworkChange(Json::Value& request, const char*) {
  const std::string localIP = GetJsonString(AsConst(request)[key::kParam], key::kLocalIp);
  // The opening text and the label are those of SetUserInfo: log readers look for them.
  ZEL_LOG_DATA(kInfo) << "SetUserInfo in cmd:" << request[key::kCmd].asUInt()
                      << ", sno:" << UnsignedOrZero(AsConst(request)[key::kSno])
                      << ", description:" << GetJsonString(request, key::kDescription)
                      << ", proxyAccount:" << localIP;
  const ProxyCallbackHandover handover(std::unique_ptr<CommonUtilProxyCallback>(
      new (std::nothrow) CommonUtilNetChangeCallback(weak_from_this(), request)));
  commonutil::CommonUtil::getInst().NetworkChange(localIP.c_str(), localIP.size(),
                                                  handover.Callback());
}

void CommonUtilService::GetProxyRetProc(Json::Value& request, const commonutil::ProxyInfo& proxy) {
  SendProxyReply("GetProxy out cmd:", request, proxy);
}

void CommonUtilService::NetworkChangeRetProc(Json::Value& request,
                                             const commonutil::ProxyInfo& proxy) {
  SendProxyReply("NetworkChangeRetProc out cmd:", request, proxy);
}

void CommonUtilService::SendProxyReply(const char* logText, const Json::Value& request,
                                       const commonutil::ProxyInfo& proxy) {
  std::string password = proxy.getProxyPassword();
  const commonutil::WipeGuard wipe(password);
  ZEL_LOG_DATA(kInfo) << logText << UnsignedOrZero(request[key::kCmd])
                      << ", sno:" << UnsignedOrZero(request[key::kSno])
                      << ", description:" << GetJsonString(request, key::kDescription)
                      << ", proxyServer:" << commonutil::WithoutCredentials(proxy.getProxyServer())
                      << ", proxyPort:" << proxy.getProxyPort()
                      << ", proxyAccount:" << proxy.getProxyAccount()
                      << ", proxyAccPswdNum:" << password.size();
  Json::Value reply = ComposeReply(commonutil::kOk, request, nullptr);
  Json::Value& param = reply[key::kParam];
  param[key::kProxyServer] = proxy.getProxyServer();
  param[key::kProxyPort] = proxy.getProxyPort();
  param[key::kProxyAccount] = proxy.getProxyAccount();
  param[key::kProxyPassword] = password;
  SendReply(reply);
}

// The port is under "param", the texts are beside it.
void CommonUtilService::SetHttpProxy(Json::Value& request, const char*) {
  const Json::Value& received = request;
  const Json::Value& param = received[key::kParam];
  if (!param[key::kHttpProxyPort].isInt()) return;
  const int port = param[key::kHttpProxyPort].asInt();
  if (port == 0) return;
  for (const char* text : {key::kHttpProxyDomain, key::kHttpProxyUser, key::kHttpProxyPassword}) {
    if (!received[text].isString()) return;
  }
  if (port < 0 || port > kHighestPort) ZEL_LOG(kWarning) << "proxy_port is no port: " << port;
  std::string password = GetJsonString(received, key::kHttpProxyPassword);
  const commonutil::WipeGuard wipe(password);
  (void)orb_http_set_proxy(GetJsonString(received, key::kHttpProxyDomain).c_str(),
                           GetJsonString(received, key::kHttpProxyUser).c_str(), password.c_str(),
                           static_cast<unsigned short>(port));
}
