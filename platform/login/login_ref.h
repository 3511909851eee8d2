// Who receives the answers to audit requests, and what the login library keeps. The product never
// includes it: a host registers the product's receivers, tests look at the rest.
#pragma once

#include <string>

#include "zel_platform/login.h"
#include "zel_platform/platform_export.h"

// Beside 0, the results of the audit calls.
enum LoginCode : int {
  kLoginBadArgument = 1,    // null, or a text without an end
  kLoginNoBaseAddress = 2,  // the setting "audit.baseAddress" is empty
  kLoginQueueFull = 3,      // 256 requests wait already
  kLoginNoThread = 4,
  kLoginNoMemory = 5
};

// In place of the server's code or value when there is no answer of the server's.
enum AuditFailure : int {
  kAuditNoAnswer = 101,   // no exchange with the server
  kAuditRefused = 102,    // a status other than 2xx
  kAuditBadAnswer = 103,  // not the JSON object that is due, or more than 64 KB
  kAuditFile = 104        // no regular file, not readable, or larger than 64 MB
};

// `id` is the request's id (of an upload: its number, counted from 1), `code` the result's code,
// `user` the request's; `result` is a record of zel_platform/login.h.
using AuditUploadReceiver = void (*)(unsigned int id, int code, void* user, const void* result);
using AuditReceiver = void (*)(unsigned int id, void* user, const void* result);

// Called on the login library's thread, one at a time, with no lock held; null unregisters. A query
// that failed is answered with no entries. Any thread.
ZEL_PLATFORM_API void orb_login_reg_audit_callbacks(AuditUploadReceiver upload,
                                                    AuditReceiver report, AuditReceiver query);

// What was set last; zeros before. For tests.
ZEL_PLATFORM_API std::string orb_login_ref_smartroom_param();
ZEL_PLATFORM_API tagCONFCTRL_TERMINAL_PUBLIC_SDK orb_login_ref_terminal_param();
