#include "publicInc/NetDetectServers.h"

#include "util/Log.h"
#include "zel_platform/config.h"
#include "zel_platform/securec.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/CommonUtil";
constexpr int kTlsSetting = 69;  // non-zero: detection over TLS
constexpr int kPlainMode = 0;
constexpr int kTlsMode = 2;

}  // namespace

NetDetectServers::NetDetectServers() {
  const int mode = OrbGetGlobalInt32CfgWithDefVal(kTlsSetting, 0) != 0 ? kTlsMode : kPlainMode;
  for (tagNET_DETECT_SRV& server : m_servers) server.mode = mode;
}

void NetDetectServers::Set(std::size_t index, const char* domain) {
  tagNET_DETECT_SRV& server = m_servers[index];
  const errno_t error = strcpy_s(server.domain, sizeof(server.domain), domain);
  if (error != 0) ZEL_LOG(kError) << "secure func return err: " << error;
}

int NetDetectServers::Apply() const { return orb_set_net_detect_srvs(m_servers, kCount); }

}  // namespace commonutil
