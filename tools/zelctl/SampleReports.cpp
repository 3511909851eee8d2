#include "SampleReports.h"

#include "nettools/nettools_ref.h"
#include "publicInc/CommonUtilService.h"

namespace zelctl {

// Addresses are of the ranges for documentation (RFC 5737).
void SendSampleReports() {
  orb_net_tools_reg_port(&CommonUtilService::onNotifyPortDetectResult);
  orb_net_tools_reg_fw(&CommonUtilService::onNotifyFwDetect);
  orb_net_tools_reg_site(&CommonUtilService::onNotifySiteDetect);
  orb_net_tools_reg_opt(&CommonUtilService::onNotifyOptSiteDetect);

  orb_net_tools_ref_port({9, {{443, 1, 1, {}}, {8443, 1, 0, {}}}});
  orb_net_tools_ref_fw(0, 0, 0,
                       {{1, 443, 0, "192.0.2.7"},
                        {1, 443, 1, "192.0.2.8"},
                        {1, 5061, 2, "192.0.2.9"},
                        {0, 8443, 3, "192.0.2.10"},
                        {1, 16384, 4, "192.0.2.11"},
                        {1, 0, 5, ""},
                        {1, 0, 6, ""}});
  orb_net_tools_ref_site(0, 0, 0, {{1, 10}, {2, 30}});
  orb_net_tools_ref_opt(0, 0, 0, {{"north", "node-1", "198.51.100.4", 443, 20, 24, 0}});
}

}  // namespace zelctl
