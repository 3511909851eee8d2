// The replies to the commands that ask for the proxy: they are composed when the proxy is known,
// on whatever thread learns it.
#pragma once

#include <cstddef>
#include <memory>

#include <json/value.h>

#include "proxy/ProxyInfo.h"

class CommonUtilService;

// Waits for one answer of the proxy detection with a copy of the request, and deletes itself after
// it. An answer that comes after the service has gone is dropped.
class CommonUtilProxyCallback : public commonutil::GetProxyCompletedCallback {
 public:
  CommonUtilProxyCallback(const std::weak_ptr<CommonUtilService>& service,
                          const Json::Value& request)
      : m_service(service), m_request(request) {}
  ~CommonUtilProxyCallback() override;
  void onResult(const commonutil::ProxyInfo& proxy) final;

 protected:
  // Composes and sends the reply.
  virtual void Reply(CommonUtilService& service, Json::Value& request,
                     const commonutil::ProxyInfo& proxy) = 0;

 private:
  const std::weak_ptr<CommonUtilService> m_service;
  Json::Value m_request;
};

class CommonUtilGetProxyCallback final : public CommonUtilProxyCallback {
  using CommonUtilProxyCallback::CommonUtilProxyCallback;
  void Reply(CommonUtilService& service, Json::Value& request,
             const commonutil::ProxyInfo& proxy) override;
};

class CommonUtilNetChangeCallback final : public CommonUtilProxyCallback {
  using CommonUtilProxyCallback::CommonUtilProxyCallback;
  void Reply(CommonUtilService& service, Json::Value& request,
             const commonutil::ProxyInfo& proxy) override;
};

// Keeps a callback of this kind safe while it is handed to the proxy detection, and afterwards
// frees those that newer ones replaced before they were called. Any thread.
class ProxyCallbackHandover {
 public:
  // Takes the callback over; null is allowed. `Callback()` goes to the proxy detection within
  // this object's lifetime.
  explicit ProxyCallbackHandover(std::unique_ptr<CommonUtilProxyCallback> callback);
  ~ProxyCallbackHandover();
  ProxyCallbackHandover(const ProxyCallbackHandover&) = delete;
  ProxyCallbackHandover& operator=(const ProxyCallbackHandover&) = delete;

  CommonUtilProxyCallback* Callback() const { return m_callback; }
  // The callbacks of this kind that are alive in the process.
  static std::size_t CountAlive();

 private:
  CommonUtilProxyCallback* m_callback = nullptr;
  unsigned long long m_number = 0;
};
