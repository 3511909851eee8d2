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

}  // namespace message_key

namespace message_event {

inline constexpr char kUsingProxyChange[] = "COMMONUTIL_E_EVENT_ON_USINGPROXYCHANGE";

// The numbers under "notify".
enum EventNumber : unsigned int { kUsingProxyChangeId = 1 };

}  // namespace message_event
