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
  virtual void onResult(tagNET_DETECT_PROCESS_RESULT& result) = 0;
};

// The texts belong to the answering library and may be null.
struct AuditUploadResult {
  std::int32_t code;
  const char* text1;
  const char* text2;
};

struct AuditReportResult {
  std::int32_t value;
  const char* text;
  unsigned int id;
};

struct AuditTaskResultInfo {
  std::int32_t value;
  std::string text;
  std::int64_t value8;
};

// Given as `user` to the audit calls of the facade.
class AuditTaskCallback {
 public:
  virtual ~AuditTaskCallback() = default;
  virtual void onUpload(const AuditUploadResult& result) = 0;
  virtual void onReport(const AuditReportResult& result) = 0;
  virtual void onQuery(const std::vector<AuditTaskResultInfo>& results) = 0;
};

}  // namespace commonutil
