// Decides whether the server is reached directly or only through the user's HTTP proxy: two
// probes race, each one HTTP exchange on a thread of its own, and the first to get through
// decides. Any exchange that completes counts, whatever its status.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "proxy/ProxyInfo.h"
#include "util/Mutex.h"

namespace commonutil {

// One per process, never destroyed. Any thread. Receivers are called with no lock held, on the
// probe's thread that got through or, when the answer is known already, on the caller's.
class ProxyDetect {
 public:
  static ProxyDetect& GetInstance();
  ProxyDetect(const ProxyDetect&) = delete;
  ProxyDetect& operator=(const ProxyDetect&) = delete;

  // The proxy to try and the URL to probe. Settings that differ from the last ones forget the
  // decision. Always 0.
  int SetUserInfo(ProxyInfo user, std::string serverURL);
  // Replaces the waiting receiver, which is then never called. Returns 0 when `callback` was
  // called at once, kProxyUnfinished when it will be called by the probe that gets through; that is
  // never when none does. Null is allowed. The object must live until its call, or until
  // another one replaced it and IsInUse no longer names it.
  unsigned int GetProxy(GetProxyCompletedCallback* callback);
  // Forgets the decision, keeps the settings and asks anew. `localIP` goes to the log only.
  void NetworkChange(std::string localIP, GetProxyCompletedCallback* callback);

  // Calls the waiting receivers, each for the last time.
  void NotifyProxy(const ProxyInfo& proxy);
  // Forgets settings and decision; the URL and the receivers stay.
  void ClearProxyData();
  // True when they differ in anything, the decrypted password included.
  bool CompareProxy(const ProxyInfo& a, const ProxyInfo& b);

  // Whether the receiver waits for its call or is being called.
  bool IsInUse(const GetProxyCompletedCallback* callback);

  // One exchange with the server through `info`, or directly when it names no proxy. 0 when it
  // completed. Blocks up to the HTTP library's time-out.
  int detectURL(ProxyInfo info);

 protected:
  ProxyDetect() = default;  // a test starts with one of its own
  ~ProxyDetect() = default;

 private:
  enum State : std::int32_t { kUnknown = 0, kNoProxyNeeded = 1, kProbing = 2, kDecided = 3 };

  // The receivers that a result goes to, taken out of their slots.
  struct Receivers {
    GetProxyCompletedCallback* pending = nullptr;
    GetProxyCompletedCallback* second = nullptr;
  };
  // A proxy that a probe found. It is announced after the receivers of its result were called.
  struct Finding {
    std::uint64_t number;
    ProxyInfo proxy;
    bool receiversCalled;
  };

  // Each is given the ProxyDetect, detaches itself and returns null.
  static void* DetectNoProxyThread(void* self);
  static void* DetectUserProxyThread(void* self);
  static void* DetectTimeoutThread(void* self);

  void StartProbes();
  void Probe(const ProxyInfo& proxy, const char* logText);
  Receivers ClaimLocked() ZEL_REQUIRES(m_lock);
  void Call(const Receivers& receivers, const ProxyInfo& proxy);
  void ClearLocked() ZEL_REQUIRES(m_lock);
  void Announce(std::uint64_t finding);
  // The oldest finding, once its receivers were called.
  bool NextToAnnounce(ProxyInfo& proxy, ProxyInfo& announced);

  Mutex m_lock;
  ProxyInfo m_spareProxy ZEL_GUARDED_BY(m_lock);
  ProxyInfo m_currentProxy ZEL_GUARDED_BY(m_lock);
  ProxyInfo m_userProxy ZEL_GUARDED_BY(m_lock);
  std::uint64_t m_reserved ZEL_GUARDED_BY(m_lock) = 0;
  std::string m_serverURL ZEL_GUARDED_BY(m_lock);
  State m_state ZEL_GUARDED_BY(m_lock) = kUnknown;
  Receivers m_receivers ZEL_GUARDED_BY(m_lock);
  std::vector<const GetProxyCompletedCallback*> m_calling ZEL_GUARDED_BY(m_lock);

  // The announcements to the facade's user: in the order of the findings, one at a time.
  std::deque<Finding> m_findings ZEL_GUARDED_BY(m_lock);
  std::uint64_t m_lastFinding ZEL_GUARDED_BY(m_lock) = 0;
  bool m_announcing ZEL_GUARDED_BY(m_lock) = false;
  ProxyInfo m_announcedProxy ZEL_GUARDED_BY(m_lock);
};

}  // namespace commonutil
