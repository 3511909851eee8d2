// The message service as the facade's callback: events become notifications.
#pragma once

#include "publicInc/CommonUtilData.h"
#include "publicInc/CommonUtilOrbService.h"

class CommonUtilNotify : public CommonUtilOrbService, public commonutil::GlobalCallback {
 public:
  // The facade forgets this object before its members go.
  ~CommonUtilNotify() override;

  unsigned int _makeNotifyMsgID(unsigned int event) override;
  // Sends the notification to the host. Any thread. The password is sent in clear, as the
  // host gave it: it has to log in to the proxy with it.
  void onUsingProxyChange(const commonutil::ProxyInfo& proxy) override;

 protected:
  // Waits for a notification that is being composed on another thread. A derived class calls
  // it first thing in its destructor, while the object is still whole.
  void LeaveFacade();
  // A notification without its "param".
  Json::Value Notification(const char* name, unsigned int number);
};
