// Lets a test decide when the two probes of a proxy detection end, and how.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "support/PlatformDouble.h"
#include "zel_platform/http.h"

namespace support {

// Each exchange waits for a result of its kind, which it takes. Shared with the exchanges, which
// may outlive the test.
class ProxyProbes {
 public:
  enum Kind { kDirect, kProxied };

  static std::shared_ptr<ProxyProbes> Install() {
    const auto probes = std::make_shared<ProxyProbes>();
    SetHttpExchange([probes](ORB_HTTP_REQUEST& request) { return probes->Exchange(request); });
    return probes;
  }

  // Lets one exchange of this kind end with `code`, and with `status`.
  void Finish(Kind kind, int code, unsigned int status = 200) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_results[kind].push_back({code, status});
    m_changed.notify_all();
  }

 private:
  struct Result {
    int code;
    unsigned int status;
  };

  int Exchange(ORB_HTTP_REQUEST& request) {
    std::unique_lock<std::mutex> hold(m_lock);
    std::vector<Result>& results = m_results[request.proxy == nullptr ? kDirect : kProxied];
    m_changed.wait(hold, [&results] { return !results.empty(); });
    const Result result = results.back();
    results.pop_back();
    request.status = result.status;
    return result.code;
  }

  std::mutex m_lock;
  std::condition_variable m_changed;
  std::map<Kind, std::vector<Result>> m_results;
};

}  // namespace support
