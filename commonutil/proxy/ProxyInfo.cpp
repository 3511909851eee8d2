#include "proxy/ProxyInfo.h"

#include "util/PublicUtil.h"

namespace commonutil {

std::string ProxyInfo::getProxyPassword() const {
  return PublicUtil::getEncryptUtilsInst().Base64DecodeThenDecrypt(m_password);
}

void ProxyInfo::setProxyPassword(const std::string& plain) {
  m_password = PublicUtil::getEncryptUtilsInst().EncryptThenBase64Encode(plain);
}

void ProxyInfo::clear() {
  m_server.clear();
  m_port = 0;
  m_account.clear();
  m_password.clear();
}

}  // namespace commonutil
