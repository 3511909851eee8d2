// Login and conference control: audit tasks and terminal parameters. Any thread. Records
// are copied; a result is valid during its callback only.
#pragma once

#include <cstdint>

#include "zel_platform/platform_export.h"

// A file to be sent. Texts end with a NUL.
struct tagLOGIN_AUDIT_UPLOAD {
  char path[512];  // of the file
  char name[64];   // under which it is sent
  void* user;      // for the answer
};

// The state of an audit task.
struct tagLOGIN_AUDIT_REPORT {
  std::uint32_t id;    // of the task
  std::int32_t state;  // 1 or 0
  char text[64];       // a message
  void* user;          // for the answer
};

// A question about an audit task.
struct tagLOGIN_AUDIT_QUERY {
  std::uint32_t id;  // of the task
  char text[400];    // the question
  void* user;        // for the answer
};

// The answer to an upload. Texts may be null.
struct tagLOGIN_AUDIT_UPLOAD_RESULT {
  std::int32_t code;  // the server's, or why there is none
  const char* text1;  // the file's id
  const char* text2;  // a message
};

// The answer to a report. The text may be null.
struct tagLOGIN_AUDIT_REPORT_RESULT {
  std::int32_t value;  // the server's, or why there is none
  const char* text;    // a message
};

// One entry of the answer to a query. The text may be null.
struct tagLOGIN_AUDIT_QUERY_ENTRY {
  std::int32_t value;   // the server's, or why there is none
  const char* text;     // a message
  std::int64_t value8;  // the server's
};

// The answer to a query.
struct tagLOGIN_AUDIT_QUERY_RESULT {
  std::uint32_t count;                        // of the entries
  const tagLOGIN_AUDIT_QUERY_ENTRY* entries;  // may be null with a count of 0
};

// What the terminal tells of itself. Texts end with a NUL.
struct tagCONFCTRL_TERMINAL_PUBLIC_SDK {
  char uuid[129];      // of the user
  char account[129];   // of the user
  char gantryIp[128];  // address of the gateway
  char sbcIp[128];     // address of the session border controller
};

static_assert(sizeof(tagCONFCTRL_TERMINAL_PUBLIC_SDK) == 514, "layout is part of the contract");

extern "C" {
// Each returns 0 when the request was accepted; its answer goes to the audit callbacks,
// with the record's `user`.
ZEL_PLATFORM_API int orb_login_upload_audit_file(const tagLOGIN_AUDIT_UPLOAD* record);
// Answered with a tagLOGIN_AUDIT_REPORT_RESULT.
ZEL_PLATFORM_API int orb_login_report_audit_task(const tagLOGIN_AUDIT_REPORT* record);
// Answered with a tagLOGIN_AUDIT_QUERY_RESULT.
ZEL_PLATFORM_API int orb_login_query_audit_task(const tagLOGIN_AUDIT_QUERY* record);
// `text` is a zeroed array of 32 bytes.
ZEL_PLATFORM_API int orb_login_set_smartroom_param(const char* text);
// Keeps a copy of the record. 0 when it was taken.
ZEL_PLATFORM_API int orb_confctrl_set_terminal_public_sdk_param(
    const tagCONFCTRL_TERMINAL_PUBLIC_SDK* record);
}
