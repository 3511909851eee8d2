#include "login/AuditRequest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <memory>

#include <json/reader.h>
#include <json/writer.h>

#include "http/HttpClient.h"
#include "login/login_ref.h"
#include "zel_platform/logger.h"

namespace {

constexpr char kJsonHeader[] = "Content-Type: application/json";
constexpr off_t kLargestFile = 64L * 1024 * 1024;

LogStream Warning(int line) {
  return LogStream::GetLogStream("native_sdk", LOGGER_LEVEL_WARNING, 0,
                                 "platform/login/AuditRequest", "Ask", line);
}

std::string Join(std::string base, const char* path) {
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base + path;
}

bool Parse(const std::string& text, Json::Value* out) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), out, nullptr) && out->isObject();
  } catch (const std::exception&) {  // nested too deeply
    return false;
  }
}

// What an answer has to have.
struct Due {
  const char* member;
  bool (Json::Value::*isOfType)() const;
};

// 0 with the server's answer, or an AuditFailure.
int Ask(const HttpCall& call, const Due& due, Json::Value* answer) {
  const HttpAnswer received = HttpSend(call);
  if (received.curlCode != 0) return kAuditNoAnswer;  // logged where it happened
  if (received.status < 200 || received.status > 299) {
    Warning(__LINE__) << "audit: " << HttpMaskedUrl(call.url) << " answered with status "
                      << received.status;
    return kAuditRefused;
  }
  // An answer that fills what is kept was cut, even where what is left can be read.
  const bool isWhole = received.headers.size() + received.body.size() < kHttpKeptBytes;
  if (isWhole && Parse(received.body, answer) && ((*answer)[due.member].*due.isOfType)()) return 0;
  Warning(__LINE__) << "audit: " << HttpMaskedUrl(call.url)
                    << " answered with something other than an object with \"" << due.member
                    << "\"";
  return kAuditBadAnswer;
}

HttpCall JsonCall(const std::string& url, const Json::Value& body) {
  HttpCall call;
  call.method = HttpMethod::kPost;
  call.url = url;
  call.headers = {kJsonHeader};
  call.body = Json::FastWriter().write(body);
  return call;
}

// A member of another type counts as missing.
std::int32_t IntMember(const Json::Value& object, const char* name) {
  return object[name].isInt() ? object[name].asInt() : 0;
}

std::int64_t Int64Member(const Json::Value& object, const char* name) {
  return object[name].isInt64() ? object[name].asInt64() : 0;
}

std::string TextMember(const Json::Value& object, const char* name) {
  return object[name].isString() ? object[name].asString() : "";
}

bool IsSendable(const char* path) {
  struct stat status = {};
  return ::stat(path, &status) == 0 && S_ISREG(status.st_mode) && status.st_size <= kLargestFile &&
         ::access(path, R_OK) == 0;
}

}  // namespace

AuditUploadAnswer UploadAuditFile(const std::string& base, const tagLOGIN_AUDIT_UPLOAD& record) {
  if (!IsSendable(record.path)) {
    Warning(__LINE__) << "audit: the file cannot be sent";
    return {kAuditFile, "", ""};
  }
  HttpCall call;
  call.method = HttpMethod::kPost;
  call.url = Join(base, "/audit/files");
  call.parts = {{"name", record.name, "", ""}, {"file", "", record.path, record.name}};
  Json::Value received;
  const int failure = Ask(call, {"code", &Json::Value::isInt}, &received);
  if (failure != 0) return {failure, "", ""};
  const Json::Value& answer = received;
  return {IntMember(answer, "code"), TextMember(answer, "fileId"), TextMember(answer, "message")};
}

AuditReportAnswer ReportAuditTask(const std::string& base, const tagLOGIN_AUDIT_REPORT& record) {
  Json::Value body;
  body["id"] = record.id;
  body["state"] = record.state;
  body["text"] = record.text;
  Json::Value received;
  const int failure =
      Ask(JsonCall(Join(base, "/audit/reports"), body), {"value", &Json::Value::isInt}, &received);
  if (failure != 0) return {failure, ""};
  const Json::Value& answer = received;
  return {IntMember(answer, "value"), TextMember(answer, "text")};
}

AuditQueryAnswer QueryAuditTask(const std::string& base, const tagLOGIN_AUDIT_QUERY& record) {
  Json::Value body;
  body["id"] = record.id;
  body["text"] = record.text;
  Json::Value received;
  const int failure = Ask(JsonCall(Join(base, "/audit/queries"), body),
                          {"entries", &Json::Value::isArray}, &received);
  if (failure != 0) return {};
  AuditQueryAnswer answer;
  for (const Json::Value& entry : received["entries"]) {
    if (!entry.isObject()) continue;
    answer.entries.push_back(
        {IntMember(entry, "value"), TextMember(entry, "text"), Int64Member(entry, "value8")});
  }
  return answer;
}
