#include "proxy/proxy_detect.h"

#include <algorithm>
#include <utility>

#include "publicInc/CommonUtilManager.h"
#include "publicInc/ResultCode.h"
#include "util/Boundary.h"
#include "util/Log.h"
#include "util/ScopeGuard.h"
#include "util/SecureWipe.h"
#include "util/Statistics.h"
#include "util/UrlText.h"
#include "zel_platform/http.h"
#include "zel_platform/prax.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/proxy/proxy_detect";
constexpr char kThreadFailed[] = "Create thread to ProxyDetect failed";
constexpr char kTimeoutThreadFailed[] = "Create thread to ProxyDetect failed:DetectTimeoutThread";
constexpr int kAnalysisLevel = 2;

void DetachSelf() { (void)PRAX_PthreadDetach(PRAX_PthreadSelf()); }

void StartThread(PRAX_ThreadEntry entry, void* argument, const char* failure) {
  PRAX_THREAD thread = 0;
  if (PRAX_PthreadCreate(&thread, nullptr, entry, argument) != 0) ZEL_LOG(kError) << failure;
}

std::string::size_type PasswordLength(const ProxyInfo& proxy) {
  std::string password = proxy.getProxyPassword();
  const WipeGuard wipe(password);
  return password.size();
}

// One request to the HTTP library with its proxy block. Destroying it frees what the library
// allocated and wipes both records.
class ProbeRequest {
 public:
  explicit ProbeRequest(const std::string& url) {
    Add(memset_s(&m_request, sizeof(m_request), 0, sizeof(m_request)));
    Add(strcpy_s(m_request.url, sizeof(m_request.url), url.c_str()));
    Add(memset_s(&m_proxy, sizeof(m_proxy), 0, sizeof(m_proxy)));
  }
  ~ProbeRequest() {
    PRAX_MemFreeSetNullD(&m_request.buffer1);
    PRAX_MemFreeSetNullD(&m_request.buffer2);
    Add(memset_s(&m_request, sizeof(m_request), 0, sizeof(m_request)));
    Add(memset_s(&m_proxy, sizeof(m_proxy), 0, sizeof(m_proxy)));
    if (m_errors != 0) ZEL_LOG(kError) << "secure function return err: " << m_errors;
  }
  ProbeRequest(const ProbeRequest&) = delete;
  ProbeRequest& operator=(const ProbeRequest&) = delete;

  void UseProxy(const ProxyInfo& info) {
    Add(strcpy_s(m_proxy.address, sizeof(m_proxy.address), info.getProxyServer().c_str()));
    m_proxy.port = info.getProxyPort();
    Add(strcpy_s(m_proxy.user, sizeof(m_proxy.user), info.getProxyAccount().c_str()));
    std::string password = info.getProxyPassword();
    const WipeGuard wipe(password);
    Add(strcpy_s(m_proxy.password, sizeof(m_proxy.password), password.c_str()));
    m_request.proxy = &m_proxy;
  }

  int Send() { return orb_http_syn_send_ex(&m_request, 0); }
  const char* Id() const { return m_request.requestId; }
  std::uint32_t Status() const { return m_request.status; }

 private:
  void Add(errno_t error) { m_errors += error; }

  ORB_HTTP_REQUEST m_request;
  ORB_HTTP_PROXY m_proxy;
  int m_errors = 0;  // of the bounded functions, added up
};

}  // namespace

ProxyDetect& ProxyDetect::GetInstance() {
  static ProxyDetect& instance = *new ProxyDetect;
  return instance;
}

int ProxyDetect::SetUserInfo(ProxyInfo user, std::string serverURL) {
  ZEL_LOG_DATA(kInfo) << "<in> proxy=" << WithoutCredentials(user.getProxyServer()) << " "
                      << user.getProxyPort() << " " << user.getProxyAccount()
                      << " psdnum=" << PasswordLength(user)
                      << " serverURL=" << WithoutCredentials(serverURL);
  ProxyInfo stored;
  {
    MutexLock hold(m_lock);
    m_serverURL = std::move(serverURL);
    stored = m_userProxy;
  }
  const bool changed = CompareProxy(user, stored);
  MutexLock hold(m_lock);
  if (changed) ClearLocked();
  m_userProxy = user;
  m_currentProxy = user;  // a decision stays one, and now names these settings
  return kOk;
}

unsigned int ProxyDetect::GetProxy(GetProxyCompletedCallback* callback) {
  State found = kUnknown;
  ProxyInfo answer;  // names no proxy
  Receivers receivers;
  {
    MutexLock hold(m_lock);
    m_receivers.pending = callback;
    found = m_state;
    if (found == kDecided) answer = m_currentProxy;
    if (found == kNoProxyNeeded) answer = m_userProxy;
    if (found == kUnknown && m_userProxy.getProxyServer().empty()) {
      m_currentProxy.clear();
      found = m_state = kNoProxyNeeded;
    } else if (found == kUnknown) {
      m_state = kProbing;
    }
    if (found == kDecided || found == kNoProxyNeeded) receivers = ClaimLocked();
  }
  switch (found) {
    case kDecided:
      ZEL_LOG_DATA(kInfo) << "GetProxy return: SUCCESS: "
                          << WithoutCredentials(answer.getProxyServer());
      break;
    case kNoProxyNeeded:
      ZEL_LOG(kInfo) << "GetProxy return: No need proxy";
      break;
    case kProbing:
      ZEL_LOG(kInfo) << "GetProxy return: SDK_COMMON_E_ERR_PROXY_UNFINISH";
      return kProxyUnfinished;
    case kUnknown:
      StartProbes();
      return kProxyUnfinished;
  }
  Call(receivers, answer);
  return kOk;
}

void ProxyDetect::NetworkChange(std::string localIP, GetProxyCompletedCallback* callback) {
  ZEL_LOG_DATA(kInfo) << "new localIP=" << localIP;
  ProxyInfo user;
  std::string url;
  {
    MutexLock hold(m_lock);
    user = m_userProxy;
    url = m_serverURL;
    ClearLocked();
  }
  (void)SetUserInfo(user, url);
  (void)GetProxy(callback);
}

void ProxyDetect::NotifyProxy(const ProxyInfo& proxy) {
  Receivers receivers;
  {
    MutexLock hold(m_lock);
    receivers = ClaimLocked();
  }
  Call(receivers, proxy);
}

void ProxyDetect::ClearProxyData() {
  MutexLock hold(m_lock);
  ClearLocked();
}

// Both passwords are decrypted whatever else differs: the log tells of each that cannot be.
bool ProxyDetect::CompareProxy(const ProxyInfo& a, const ProxyInfo& b) {
  std::string one = a.getProxyPassword();
  const WipeGuard wipeOne(one);
  std::string other = b.getProxyPassword();
  const WipeGuard wipeOther(other);
  return a.getProxyServer() != b.getProxyServer() || a.getProxyPort() != b.getProxyPort() ||
         a.getProxyAccount() != b.getProxyAccount() || one != other;
}

bool ProxyDetect::IsInUse(const GetProxyCompletedCallback* callback) {
  MutexLock hold(m_lock);
  return m_receivers.pending == callback || m_receivers.second == callback ||
         std::find(m_calling.begin(), m_calling.end(), callback) != m_calling.end();
}

int ProxyDetect::detectURL(ProxyInfo info) {
  std::string url;
  {
    MutexLock hold(m_lock);
    url = m_serverURL;
  }
  ProbeRequest request(url);
  if (!info.getProxyServer().empty()) request.UseProxy(info);
  const int result = request.Send();
  const std::string shownUrl = WithoutCredentials(url);
  const int status = static_cast<int>(request.Status());
  IntelligentAnalyseDoStubToLog(kLogModule, "HTTP", kAnalysisLevel, "detectURL",
                                "[reqid:%s][resp:%s] status = %d.", request.Id(), shownUrl.c_str(),
                                status);
  ZEL_LOG_DATA(kInfo) << "detectproxy=" << WithoutCredentials(info.getProxyServer())
                      << ", port=" << info.getProxyPort() << ", url=" << shownUrl
                      << ", orb_http_syn_send; ret=" << result << ", statusCode=" << status;
  return result == 0 ? kOk : kFailed;
}

void* ProxyDetect::DetectNoProxyThread(void* self) {
  DetachSelf();
  if (self == nullptr) return nullptr;
  AtBoundary([self] {
    static_cast<ProxyDetect*>(self)->Probe(ProxyInfo(), "GetProxy return: SUCCESS: NoProxy");
  });
  return nullptr;
}

void* ProxyDetect::DetectUserProxyThread(void* self) {
  DetachSelf();
  if (self == nullptr) return nullptr;
  AtBoundary([self] {
    ProxyDetect& detect = *static_cast<ProxyDetect*>(self);
    ProxyInfo user;
    {
      MutexLock hold(detect.m_lock);
      user = detect.m_userProxy;
    }
    detect.Probe(user, "GetProxy return: SUCCESS: UserProxy");
  });
  return nullptr;
}

// There is no time-out: two probes that fail leave the question open until the settings or the
// network change. The thread is part of what a start of the probes is.
void* ProxyDetect::DetectTimeoutThread(void*) {
  DetachSelf();
  return nullptr;
}

void ProxyDetect::StartProbes() {
  StartThread(&ProxyDetect::DetectNoProxyThread, this, kThreadFailed);
  StartThread(&ProxyDetect::DetectUserProxyThread, this, kThreadFailed);
  StartThread(&ProxyDetect::DetectTimeoutThread, this, kTimeoutThreadFailed);
}

// A success decides also when the settings have changed meanwhile.
void ProxyDetect::Probe(const ProxyInfo& proxy, const char* logText) {
  Statistics::Count(Counter::kProxyProbes);
  if (detectURL(proxy) != kOk) return;
  Statistics::Count(Counter::kProxyProbesThrough);
  Receivers receivers;
  std::uint64_t finding = 0;
  {
    MutexLock hold(m_lock);
    m_currentProxy = proxy;
    m_state = kDecided;
    receivers = ClaimLocked();
    finding = ++m_lastFinding;
    m_findings.push_back({finding, proxy, false});
  }
  ZEL_LOG(kInfo) << logText;
  AtBoundary([&] { Call(receivers, proxy); });
  Announce(finding);
}

ProxyDetect::Receivers ProxyDetect::ClaimLocked() {
  const Receivers claimed = std::exchange(m_receivers, {});
  for (const auto* receiver : {claimed.pending, claimed.second}) {
    if (receiver != nullptr) m_calling.push_back(receiver);
  }
  return claimed;
}

void ProxyDetect::Call(const Receivers& receivers, const ProxyInfo& proxy) {
  for (auto* receiver : {receivers.pending, receivers.second}) {
    if (receiver == nullptr) continue;
    // The receiver may be gone after its call: only its address is used then.
    const ScopeGuard called([this, receiver] {
      MutexLock hold(m_lock);
      const auto entry = std::find(m_calling.begin(), m_calling.end(), receiver);
      if (entry != m_calling.end()) m_calling.erase(entry);
    });
    receiver->onResult(proxy);
  }
}

void ProxyDetect::ClearLocked() {
  m_userProxy.clear();
  m_currentProxy.clear();
  m_spareProxy.clear();
  m_reserved = 0;
  m_state = kUnknown;
}

// Two probes may get here at the same time; one of them announces for both, so that the
// facade's user hears of the findings in their order.
void ProxyDetect::Announce(std::uint64_t finding) {
  {
    MutexLock hold(m_lock);
    for (Finding& entry : m_findings) {
      if (entry.number == finding) entry.receiversCalled = true;
    }
    if (m_announcing) return;
    m_announcing = true;
  }
  ProxyInfo proxy;
  ProxyInfo announced;
  while (NextToAnnounce(proxy, announced)) {
    AtBoundary([&] {
      if (!CompareProxy(proxy, announced)) return;
      {
        MutexLock hold(m_lock);
        m_announcedProxy = proxy;
      }
      CommonUtilManager::GetInstance().onUsingProxyChange(proxy);
    });
  }
}

// Without memory for the copies the finding waits for the next announcement.
bool ProxyDetect::NextToAnnounce(ProxyInfo& proxy, ProxyInfo& announced) {
  MutexLock hold(m_lock);
  m_announcing = false;
  if (m_findings.empty() || !m_findings.front().receiversCalled) return false;
  proxy = m_findings.front().proxy;
  announced = m_announcedProxy;
  m_findings.pop_front();
  m_announcing = true;
  return true;
}

}  // namespace commonutil
