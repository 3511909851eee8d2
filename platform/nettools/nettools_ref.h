// The network tools beyond network detection: who receives the results of port, firewall and site
// detections, and a way to hand results in. The product never includes it: hosts register its
// receivers, tests and demonstrations drive them.
#pragma once

#include <vector>

#include "zel_platform/nettools.h"
#include "zel_platform/platform_export.h"

// Beside 0, the results of orb_net_detect, orb_net_detect_jni and orb_set_net_detect_srvs.
enum NetToolsCode : int {
  kNetToolsBadArgument = 1,
  kNetToolsNoServers = 2,  // no entry names one
  kNetToolsBusy = 3,       // a detection runs
  kNetToolsNoThread = 4
};

using PortDetectReceiver = void (*)(const void* report);  // a tagPORT_DETECT_RESULT
using FwDetectReceiver = void (*)(unsigned int, unsigned int, unsigned int,
                                  std::vector<tagFW_MULTI_DETECT_INFO>);
using SiteDetectReceiver = void (*)(unsigned int, unsigned int, unsigned int,
                                    std::vector<tagBW_MULTI_SITE_DETECT_RESULT>);
using OptDetectReceiver = void (*)(unsigned int, unsigned int, unsigned int,
                                   std::vector<tagOPT_MULTI_DETECT_INFO>);

// Any thread; null unregisters.
ZEL_PLATFORM_API void orb_net_tools_reg_port(PortDetectReceiver receiver);
ZEL_PLATFORM_API void orb_net_tools_reg_fw(FwDetectReceiver receiver);
ZEL_PLATFORM_API void orb_net_tools_reg_site(SiteDetectReceiver receiver);
ZEL_PLATFORM_API void orb_net_tools_reg_opt(OptDetectReceiver receiver);

// Call the registered receiver on this thread; nothing without one.
ZEL_PLATFORM_API void orb_net_tools_ref_port(const tagPORT_DETECT_RESULT& report);
ZEL_PLATFORM_API void orb_net_tools_ref_fw(unsigned int id, unsigned int result, unsigned int flag,
                                           const std::vector<tagFW_MULTI_DETECT_INFO>& entries);
ZEL_PLATFORM_API void orb_net_tools_ref_site(
    unsigned int id, unsigned int result, unsigned int flag,
    const std::vector<tagBW_MULTI_SITE_DETECT_RESULT>& sites);
ZEL_PLATFORM_API void orb_net_tools_ref_opt(unsigned int id, unsigned int result,
                                            unsigned int preference,
                                            const std::vector<tagOPT_MULTI_DETECT_INFO>& sites);
