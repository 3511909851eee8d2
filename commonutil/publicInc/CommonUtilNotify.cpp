#include "publicInc/CommonUtilNotify.h"

#include "proxy/ProxyInfo.h"
#include "publicInc/CommonUtilManager.h"
#include "publicInc/MessageKeys.h"

namespace key = message_key;
namespace event = message_event;

CommonUtilNotify::~CommonUtilNotify() { LeaveFacade(); }

void CommonUtilNotify::LeaveFacade() {
  commonutil::CommonUtilManager::GetInstance().ForgetGlobalCallback(this);
}

unsigned int CommonUtilNotify::_makeNotifyMsgID(unsigned int event) { return event; }

void CommonUtilNotify::onUsingProxyChange(const commonutil::ProxyInfo& proxy) {
  Json::Value param(Json::objectValue);
  param[key::kProxyServer] = proxy.getProxyServer();
  param[key::kProxyPort] = proxy.getProxyPort();
  param[key::kProxyAccount] = proxy.getProxyAccount();
  param[key::kProxyPassword] = proxy.getProxyPassword();

  Json::Value notification(Json::objectValue);
  notification[key::kDescription] = event::kUsingProxyChange;
  notification[key::kNotify] = static_cast<int>(_makeNotifyMsgID(event::kUsingProxyChangeId));
  notification[key::kParam] = param;
  SendNotification(notification);
}
