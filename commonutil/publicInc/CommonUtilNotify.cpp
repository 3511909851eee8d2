#include "publicInc/CommonUtilNotify.h"

#include "proxy/ProxyInfo.h"
#include "publicInc/CommonUtilManager.h"
#include "publicInc/MessageKeys.h"

namespace key = message_key;
namespace event = message_event;

CommonUtilNotify::~CommonUtilNotify() { LeaveFacade(); }

unsigned int CommonUtilNotify::_makeNotifyMsgID(unsigned int event) { return event; }

void CommonUtilNotify::onUsingProxyChange(const commonutil::ProxyInfo& proxy) {
  Json::Value notification = Notification(event::kUsingProxyChange, event::kUsingProxyChangeId);
  Json::Value& param = notification[key::kParam];
  param[key::kProxyServer] = proxy.getProxyServer();
  param[key::kProxyPort] = proxy.getProxyPort();
  param[key::kProxyAccount] = proxy.getProxyAccount();
  param[key::kProxyPassword] = proxy.getProxyPassword();
  SendNotification(notification);
}

void CommonUtilNotify::LeaveFacade() {
  commonutil::CommonUtilManager::GetInstance().ForgetGlobalCallback(this);
}

Json::Value CommonUtilNotify::Notification(const char* name, unsigned int number) {
  Json::Value notification(Json::objectValue);
  notification[key::kDescription] = name;
  notification[key::kNotify] = static_cast<int>(_makeNotifyMsgID(number));
  return notification;
}
