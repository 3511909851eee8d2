// Collects the proxies that a test is told.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "publicInc/CommonUtilManager.h"

namespace support {

// A receiver of one result, and a user of the facade.
class ProxyRecorder : public commonutil::GetProxyCompletedCallback,
                      public commonutil::GlobalCallback {
 public:
  ~ProxyRecorder() override {
    commonutil::CommonUtilManager::GetInstance().ForgetGlobalCallback(this);
  }
  void onResult(const commonutil::ProxyInfo& proxy) override { Add(proxy); }
  void onUsingProxyChange(const commonutil::ProxyInfo& proxy) override { Add(proxy); }

  // The servers of the first `count` proxies, which it waits for.
  std::vector<std::string> Await(std::size_t count) {
    std::unique_lock<std::mutex> hold(m_lock);
    m_changed.wait(hold, [&] { return m_servers.size() >= count; });
    return m_servers;
  }
  std::size_t Count() {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_servers.size();
  }

 private:
  void Add(const commonutil::ProxyInfo& proxy) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_servers.push_back(proxy.getProxyServer());
    m_changed.notify_all();
  }

  std::mutex m_lock;
  std::condition_variable m_changed;
  std::vector<std::string> m_servers;
};

}  // namespace support
