#include "publicInc/CommonUtilTrackData.h"

#include <utility>

#include "util/Log.h"
#include "util/SecureWipe.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilData";

}  // namespace

UTUpLoadParam::UTUpLoadParam(std::string account, std::string token, int serverPentraPort,
                             std::string serverPentraAddress, std::string caCertPath, int tlsMode,
                             int proxyPort, std::string proxyAddress, std::string proxyAccount,
                             std::string proxyPassword)
    : m_account(std::move(account)),
      m_token(std::move(token)),
      m_serverPentraPort(serverPentraPort),
      m_serverPentraAddress(std::move(serverPentraAddress)),
      m_caCertPath(std::move(caCertPath)),
      m_tlsMode(tlsMode),
      m_proxyPort(proxyPort),
      m_proxyAddress(std::move(proxyAddress)),
      m_proxyAccount(std::move(proxyAccount)),
      m_proxyPassword(std::move(proxyPassword)) {}

UTUpLoadParam::~UTUpLoadParam() {
  WipeString(m_token);
  WipeString(m_proxyPassword);
}

void UTUpLoadParam::ToInfoLog() const {
  ZEL_LOG_DATA(kInfo) << "[UT] uploadParam , account = " << m_account << " , token = "
                      << " , serverPentraPort = " << m_serverPentraPort
                      << " , serverPentraAddress = " << m_serverPentraAddress
                      << " , caCertPath = " << m_caCertPath << " , tlsMode = " << m_tlsMode
                      << " , proxyPort = " << m_proxyPort << " , proxyAddress = " << m_proxyAddress
                      << " , proxyAccount = " << m_proxyAccount;
}

UTPublicSdkParam::UTPublicSdkParam(std::string uuid, std::string account, std::string gantryIp,
                                   std::string sbcIp, std::string text5, std::string text6,
                                   std::string text7, std::string text8, std::string text9,
                                   std::string text10)
    : m_texts{std::move(uuid),  std::move(account), std::move(gantryIp), std::move(sbcIp),
              std::move(text5), std::move(text6),   std::move(text7),    std::move(text8),
              std::move(text9), std::move(text10)} {}

void UTPublicSdkParam::ToInfoLog() const {
  ZEL_LOG_DATA(kInfo) << "[UT] UTPublicSdkParam, uuid = " << m_texts[0]
                      << " , account = " << m_texts[1] << " , gantryIp = " << m_texts[2]
                      << " , sbcIp = " << m_texts[3];
}

}  // namespace commonutil
