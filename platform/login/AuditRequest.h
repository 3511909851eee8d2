// The three audit requests as exchanges with the audit server.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zel_platform/login.h"

struct AuditUploadAnswer {
  std::int32_t code = 0;
  std::string fileId, message;
};

struct AuditReportAnswer {
  std::int32_t value = 0;
  std::string text;
};

struct AuditQueryAnswer {
  struct Entry {
    std::int32_t value;
    std::string text;
    std::int64_t value8;
  };
  std::vector<Entry> entries;
};

// `base` is the address in front of the requests' paths. Each blocks for one HTTP exchange; a
// failure has its AuditFailure where the server's code would be, and is logged in one line.
AuditUploadAnswer UploadAuditFile(const std::string& base, const tagLOGIN_AUDIT_UPLOAD& record);
AuditReportAnswer ReportAuditTask(const std::string& base, const tagLOGIN_AUDIT_REPORT& record);
AuditQueryAnswer QueryAuditTask(const std::string& base, const tagLOGIN_AUDIT_QUERY& record);
