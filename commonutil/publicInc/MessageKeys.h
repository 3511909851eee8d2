// The keys and event names of the JSON messages, each in one place.
#pragma once

namespace message_key {

inline constexpr char kCmd[] = "cmd";
inline constexpr char kSno[] = "sno";
inline constexpr char kDescription[] = "description";
inline constexpr char kParam[] = "param";
inline constexpr char kRsp[] = "rsp";
inline constexpr char kResult[] = "result";
inline constexpr char kReason[] = "reason";
inline constexpr char kSourceRequest[] = "src_req";
inline constexpr char kNotify[] = "notify";

inline constexpr char kInitParam[] = "initParam";
inline constexpr char kLogPath[] = "log_path";
inline constexpr char kLogLevel[] = "logLevel";
inline constexpr char kLogSize[] = "logSize";
inline constexpr char kFileCount[] = "fileCount";
inline constexpr char kDbPath[] = "dbPath";

inline constexpr char kProxyServer[] = "proxyServer";
inline constexpr char kProxyPort[] = "proxyPort";
inline constexpr char kProxyAccount[] = "proxyAccount";
inline constexpr char kProxyPassword[] = "proxyAccPswd";

inline constexpr char kServerUrl[] = "serverURL";
inline constexpr char kLocalIp[] = "localIP";

inline constexpr char kHttpProxyDomain[] = "proxy_domain";
inline constexpr char kHttpProxyPort[] = "proxy_port";
inline constexpr char kHttpProxyUser[] = "proxy_user_name";
inline constexpr char kHttpProxyPassword[] = "proxy_pwd";

inline constexpr char kInternetServer[] = "internet_server_domain";
inline constexpr char kMiddleServer[] = "middle_server_domain";
inline constexpr char kMediaServer[] = "ms_server_domain";
inline constexpr char kSbcServer[] = "sbc_svn_server_domain";

inline constexpr char kPublicParam[] = "publicParam";
inline constexpr char kContextParam[] = "contextParam";
inline constexpr char kCustomParam[] = "customParam";
inline constexpr char kIndex[] = "index";
inline constexpr char kUploadSwitch[] = "uploadSwitch";

}  // namespace message_key

namespace message_event {

inline constexpr char kUsingProxyChange[] = "COMMONUTIL_E_EVENT_ON_USINGPROXYCHANGE";

inline constexpr char kNetDetectResult[] = "COMMONUTIL_E_EVENT_ON_NET_DETECT_RESULT";
inline constexpr char kPortDetectResult[] = "COMMONUTIL_E_EVENT_ON_PORT_DETECT_RESULT";
inline constexpr char kFwDetectResult[] = "COMMONUTIL_E_EVENT_ON_FW_DETECT_RESULT";
inline constexpr char kSiteDetectResult[] = "COMMONUTIL_E_EVENT_ON_SITE_DETECT_RESULT";
inline constexpr char kOptSiteDetectResult[] = "COMMONUTIL_E_EVENT_ON_SITE_OPT_DETECT_RESULT";

// The numbers under "notify".
enum EventNumber : unsigned int {
  kUsingProxyChangeId = 1,
  kNetDetectResultId = 3,
  kPortDetectResultId = 4,
  kFwDetectResultId = 5,
  kSiteDetectResultId = 6,
  kOptSiteDetectResultId = 7
};

}  // namespace message_event
