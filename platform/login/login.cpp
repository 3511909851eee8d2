// Audit tasks and terminal parameters need a server and are not available in this build of
// the reference platform: every request is refused, nothing is kept and no answer comes.
#include "zel_platform/login.h"

namespace {

constexpr int kNotAvailable = 1;

}  // namespace

int orb_login_upload_audit_file(const tagLOGIN_AUDIT_UPLOAD* /*record*/) { return kNotAvailable; }

int orb_login_report_audit_task(const tagLOGIN_AUDIT_REPORT* /*record*/) { return kNotAvailable; }

int orb_login_query_audit_task(const tagLOGIN_AUDIT_QUERY* /*record*/) { return kNotAvailable; }

int orb_login_set_smartroom_param(const char* /*text*/) { return kNotAvailable; }

int orb_confctrl_set_terminal_public_sdk_param(const tagCONFCTRL_TERMINAL_PUBLIC_SDK* /*record*/) {
  return kNotAvailable;
}
