#include "track/OtlpTransport.h"

#include <zlib.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include <json/json.h>

#include "http/HttpClient.h"
#include "zel_platform/logger.h"

namespace {

constexpr char kLogsPath[] = "/v1/logs";
constexpr char kBodyBegin[] =
    R"({"resourceLogs":[{"resource":{"attributes":[{"key":"service.name",)"
    R"("value":{"stringValue":"zel_utils"}}]},"scopeLogs":[{"scope":{"name":"zel_track"},)"
    R"("logRecords":[)";
constexpr char kBodyEnd[] = "]}]}]}";
constexpr int kGzipWindow = 15 + 16;  // zlib writes a gzip header with these 16
constexpr int kZlibMemory = 8;        // zlib's default
constexpr int kInfoSeverity = 9;
constexpr std::int64_t kMsPerSecond = 1000;
constexpr std::int64_t kLongestRetryAfterSeconds = 3600;

std::string WithoutTrailingSlash(std::string text) {
  while (!text.empty() && text.back() == '/') text.pop_back();
  return text;
}

std::string Nanoseconds(std::int64_t ms) { return std::to_string(ms) + "000000"; }

void AddAttribute(const std::string& key, const char* type, Json::Value value,
                  Json::Value* attributes) {
  Json::Value attribute(Json::objectValue);
  attribute["key"] = key;
  attribute["value"][type] = std::move(value);
  attributes->append(std::move(attribute));
}

// JSON has no 64-bit integers: they are texts.
void AddField(const TrackEvent::Field& field, Json::Value* attributes) {
  const char* const key = TrackFieldName(field.field);
  if (field.isText) {
    AddAttribute(key, "stringValue", ReadableText(field.text), attributes);
  } else {
    AddAttribute(key, "intValue", std::to_string(field.number), attributes);
  }
}

std::string BodyOf(const std::vector<std::string>& batch) {
  std::string body = kBodyBegin;
  for (const std::string& record : batch) {
    if (&record != &batch.front()) body += ',';
    body += record;
  }
  return body + kBodyEnd;
}

// Empty when there is no memory for it.
std::string Gzip(const std::string& text) {
  z_stream stream = {};
  if (::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, kZlibMemory,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
    return {};
  }
  std::string packed(::deflateBound(&stream, static_cast<uLong>(text.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));  // zlib's old manner
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const bool complete = ::deflate(&stream, Z_FINISH) == Z_STREAM_END;
  packed.resize(complete ? stream.total_out : 0);
  (void)::deflateEnd(&stream);
  return packed;
}

bool IsWorthRetrying(std::uint32_t status) {
  return status == 429 || status == 502 || status == 503 || status == 504 || status < 200 ||
         (status >= 300 && status < 400);
}

// A collector may accept a batch and tell of records in it that it could not use. Whatever it says,
// the batch stays accepted.
void LogPartialSuccess(const std::string& body) try {
  Json::Value answer;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(body.data(), body.data() + body.size(), &answer, &errors)) return;
  if (!answer.isObject() || !answer["partialSuccess"].isObject()) return;
  const Json::Value& rejected = answer["partialSuccess"]["rejectedLogRecords"];
  if (!rejected.isString() && !rejected.isIntegral()) return;
  const std::string count = rejected.asString();
  if (count == "0") return;
  LogStream::GetLogStream("native_sdk", LOGGER_LEVEL_ERROR, 0, "platform/track/OtlpTransport",
                          "LogPartialSuccess", __LINE__)
      << "track: the collector did not use " << count << " events of a batch";
} catch (const std::exception&) {  // nested too deeply, or no memory
}

}  // namespace

OtlpTransport::OtlpTransport(const std::string& endpoint)
    : m_url(WithoutTrailingSlash(endpoint) + kLogsPath) {}

bool OtlpTransport::Takes(const std::string& endpoint) {
  return endpoint.rfind("http://", 0) == 0 || endpoint.rfind("https://", 0) == 0;
}

std::string OtlpTransport::Encode(const TrackEvent& event) const {
  const TrackEvent::Field* const id = event.Find(TrackField::kEventId);
  Json::Value record(Json::objectValue);
  record["timeUnixNano"] = Nanoseconds(event.head.timeMs);
  record["observedTimeUnixNano"] = record["timeUnixNano"];
  record["severityNumber"] = kInfoSeverity;
  record["severityText"] = "INFO";
  record["body"]["stringValue"] =
      id == nullptr ? std::string(TrackFunctionName(event.head.kind)) : ReadableText(id->text);
  Json::Value& attributes = record["attributes"];
  AddAttribute("function", "stringValue", TrackFunctionName(event.head.kind), &attributes);
  AddAttribute("session.id", "stringValue", TrackSessionText(event.head.session), &attributes);
  AddAttribute("sequence", "intValue", std::to_string(event.head.sequence), &attributes);
  for (const TrackEvent::Field& field : event.fields) AddField(field, &attributes);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  return Json::writeString(writer, record);
}

TrackAnswer OtlpTransport::Send(const std::vector<std::string>& batch) {
  HttpCall call;
  call.method = HttpMethod::kPost;
  call.url = m_url;
  call.headers = {"Content-Type: application/json", "Content-Encoding: gzip"};
  call.body = Gzip(BodyOf(batch));
  if (call.body.empty()) return {TrackOutcome::kRetry, 0, "no memory to compress"};
  const HttpAnswer answer = HttpSend(call);
  if (answer.curlCode != 0) return {TrackOutcome::kRetry, 0, "no connection"};
  if (answer.status >= 200 && answer.status < 300) {
    LogPartialSuccess(answer.body);
    return {};
  }
  const std::string reason = "status " + std::to_string(answer.status);
  if (!IsWorthRetrying(answer.status)) return {TrackOutcome::kRefused, 0, reason};
  const std::int64_t seconds =
      std::clamp<std::int64_t>(answer.retryAfterSeconds, 0, kLongestRetryAfterSeconds);
  return {TrackOutcome::kRetry, seconds * kMsPerSecond, reason};
}
