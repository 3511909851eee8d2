// Login and conference control: audit tasks and terminal parameters. Any thread. Records
// are copied; a result is valid during its callback only.
#pragma once

#include <cstdint>

#include "zel_platform/platform_export.h"

struct tagLOGIN_AUDIT_UPLOAD {
  char path[512];
  char name[64];
  void* user;
};

struct tagLOGIN_AUDIT_REPORT {
  std::uint32_t id;
  std::int32_t state;
  char text[64];
  void* user;
};

struct tagLOGIN_AUDIT_QUERY {
  std::uint32_t id;
  char text[400];
  void* user;
};

struct tagLOGIN_AUDIT_UPLOAD_RESULT {
  std::int32_t code;
  const char *text1, *text2;
};

struct tagLOGIN_AUDIT_REPORT_RESULT {
  std::int32_t value;
  const char* text;
};

struct tagLOGIN_AUDIT_QUERY_ENTRY {
  std::int32_t value;
  const char* text;
  std::int64_t value8;
};

struct tagLOGIN_AUDIT_QUERY_RESULT {
  std::uint32_t count;
  const tagLOGIN_AUDIT_QUERY_ENTRY* entries;  // may be null with a count of 0
};

struct tagCONFCTRL_TERMINAL_PUBLIC_SDK {
  char uuid[129], account[129], gantryIp[128], sbcIp[128];
};

static_assert(sizeof(tagCONFCTRL_TERMINAL_PUBLIC_SDK) == 514, "layout is part of the contract");

extern "C" {
// Each returns 0 when the request was accepted; its answer goes to the audit callbacks,
// with the record's `user`.
ZEL_PLATFORM_API int orb_login_upload_audit_file(const tagLOGIN_AUDIT_UPLOAD* record);
ZEL_PLATFORM_API int orb_login_report_audit_task(const tagLOGIN_AUDIT_REPORT* record);
ZEL_PLATFORM_API int orb_login_query_audit_task(const tagLOGIN_AUDIT_QUERY* record);
// `text` is a zeroed array of 32 bytes.
ZEL_PLATFORM_API int orb_login_set_smartroom_param(const char* text);
ZEL_PLATFORM_API int orb_confctrl_set_terminal_public_sdk_param(
    const tagCONFCTRL_TERMINAL_PUBLIC_SDK* record);
}
