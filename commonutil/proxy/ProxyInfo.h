// One proxy setting, and the receiver of a detected one.
#pragma once

#include <cstdint>
#include <string>

#include "publicInc/ZelExport.h"

namespace commonutil {

// The password is held encrypted under a key of this process (see EncryptUtils); the plain text
// exists only in the caller's hands. Not synchronised: copy it to share it.
class ZEL_API ProxyInfo {
 public:
  const std::string& getProxyServer() const { return m_server; }  // host or IP; empty: no proxy
  void setProxyServer(const std::string& server) { m_server = server; }      // no check
  std::int32_t getProxyPort() const { return m_port; }                       // 0 without one
  void setProxyPort(std::int32_t port) { m_port = port; }                    // no check
  const std::string& getProxyAccount() const { return m_account; }           // empty: none
  void setProxyAccount(const std::string& account) { m_account = account; }  // no check

  // In clear. Empty also when there is none, which the log then reports as a failed decryption.
  std::string getProxyPassword() const;
  // Keeps it encrypted. `plain` stays the caller's to wipe.
  void setProxyPassword(const std::string& plain);

  // As a new one.
  void clear();

 private:
  std::string m_server;
  std::int32_t m_port = 0;
  std::string m_account;
  std::string m_password;  // encrypted, base64
};

// Called once with the outcome of a proxy detection, on the detecting thread or, when the
// outcome is known already, on the asking one. The caller of the detection owns the object.
class GetProxyCompletedCallback {
 public:
  virtual ~GetProxyCompletedCallback() = default;
  // `proxy` is valid during the call; an empty server means the direct way.
  virtual void onResult(const ProxyInfo& proxy) = 0;
};

}  // namespace commonutil
