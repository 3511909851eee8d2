#include "publicInc/ProxyReply.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "proxy/proxy_detect.h"
#include "publicInc/CommonUtilService.h"
#include "util/Boundary.h"
#include "util/Mutex.h"

namespace {

using commonutil::Mutex;
using commonutil::MutexLock;

// All callbacks of this kind that are alive. A number names one of them for good, while the
// memory of one that is gone may be another's already.
class LivingCallbacks {
 public:
  unsigned long long Add(CommonUtilProxyCallback* callback) {
    MutexLock hold(m_lock);
    m_entries.push_back({++m_lastNumber, callback, false});
    return m_lastNumber;
  }

  void Remove(const CommonUtilProxyCallback* callback) {
    MutexLock hold(m_lock);
    m_entries.erase(
        std::remove_if(m_entries.begin(), m_entries.end(),
                       [callback](const Entry& entry) { return entry.callback == callback; }),
        m_entries.end());
  }

  std::size_t Count() {
    MutexLock hold(m_lock);
    return m_entries.size();
  }

  // The proxy detection has seen it: from now on nobody but that can call it.
  void MarkHandedOver(unsigned long long number) {
    MutexLock hold(m_lock);
    for (Entry& entry : m_entries) {
      if (entry.number == number) entry.handedOver = true;
    }
  }

  // Those that will never be called. Taken out of the list, for the caller to delete.
  std::vector<std::unique_ptr<CommonUtilProxyCallback>> TakeSuperseded() {
    std::vector<std::unique_ptr<CommonUtilProxyCallback>> superseded;
    MutexLock hold(m_lock);
    for (auto entry = m_entries.begin(); entry != m_entries.end();) {
      const bool needed =
          !entry->handedOver || commonutil::ProxyDetect::GetInstance().IsInUse(entry->callback);
      if (needed) {
        ++entry;
        continue;
      }
      superseded.emplace_back(entry->callback);
      entry = m_entries.erase(entry);
    }
    return superseded;
  }

 private:
  struct Entry {
    unsigned long long number;
    CommonUtilProxyCallback* callback;
    bool handedOver;
  };

  Mutex m_lock;  // taken before the proxy detection's lock
  std::vector<Entry> m_entries ZEL_GUARDED_BY(m_lock);
  unsigned long long m_lastNumber ZEL_GUARDED_BY(m_lock) = 0;
};

LivingCallbacks& Living() {
  static LivingCallbacks& instance = *new LivingCallbacks;
  return instance;
}

}  // namespace

CommonUtilProxyCallback::~CommonUtilProxyCallback() { Living().Remove(this); }

void CommonUtilProxyCallback::onResult(const commonutil::ProxyInfo& proxy) {
  const std::unique_ptr<CommonUtilProxyCallback> self(this);
  const std::shared_ptr<CommonUtilService> service = m_service.lock();
  if (service == nullptr) return;
  commonutil::AtBoundary([&] { Reply(*service, m_request, proxy); });
}

void CommonUtilGetProxyCallback::Reply(CommonUtilService& service, Json::Value& request,
                                       const commonutil::ProxyInfo& proxy) {
  service.GetProxyRetProc(request, proxy);
}

void CommonUtilNetChangeCallback::Reply(CommonUtilService& service, Json::Value& request,
                                        const commonutil::ProxyInfo& proxy) {
  service.NetworkChangeRetProc(request, proxy);
}

ProxyCallbackHandover::ProxyCallbackHandover(std::unique_ptr<CommonUtilProxyCallback> callback) {
  const auto superseded = Living().TakeSuperseded();
  if (callback == nullptr) return;
  m_number = Living().Add(callback.get());
  m_callback = callback.release();
}

ProxyCallbackHandover::~ProxyCallbackHandover() { Living().MarkHandedOver(m_number); }

std::size_t ProxyCallbackHandover::CountAlive() { return Living().Count(); }
