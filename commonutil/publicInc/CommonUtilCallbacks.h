// What callers of the facade implement to receive answers of the platform libraries. Calls come on
// the answering library's threads; the caller owns the objects and keeps them alive until the
// answer came. Records and references are valid during the call only. What a call throws is
// dropped.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct tagNET_DETECT_PROCESS_RESULT;  // zel_platform/nettools.h

namespace commonutil {

// Called once a measured server.
class GetNetDetectCallback {
 public:
  virtual ~GetNetDetectCallback() = default;
  // `result` is valid during the call.
  virtual void onResult(tagNET_DETECT_PROCESS_RESULT& result) = 0;
};

// The texts belong to the answering library and may be null.
struct AuditUploadResult {
  std::int32_t code;  // the server's, or the login library's
  const char* text1;  // the file's id
  const char* text2;  // a message
};

// The answer to a report. The text may be null.
struct AuditReportResult {
  std::int32_t value;  // the server's
  const char* text;    // a message
  unsigned int id;     // as reported
};

// One entry of the answer to a query.
struct AuditTaskResultInfo {
  std::int32_t value;   // the server's
  std::string text;     // empty when there is none
  std::int64_t value8;  // the server's
};

// Given as `user` to the audit calls of the facade.
class AuditTaskCallback {
 public:
  virtual ~AuditTaskCallback() = default;
  // Answers UploadAuditFile.
  virtual void onUpload(const AuditUploadResult& result) = 0;
  // Answers ReportAuditTask.
  virtual void onReport(const AuditReportResult& result) = 0;
  // Answers QueryAuditTask; empty when it failed.
  virtual void onQuery(const std::vector<AuditTaskResultInfo>& results) = 0;
};

}  // namespace commonutil
