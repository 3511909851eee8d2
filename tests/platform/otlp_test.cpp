#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "logger/logger_ref.h"
#include "support/Collector.h"
#include "support/TempDir.h"
#include "track/OtlpTransport.h"
#include "track/TrackEvent.h"
#include "zel_platform/logger.h"

namespace {

using support::Collector;

constexpr std::int64_t kNowMs = 1700000000123;

std::string RecordOf(const TrackFields& fields) {
  std::string record;
  AppendTrackHead({TrackKind::kUserTrack, kNowMs, 1, {}}, &record);
  return record + fields.Bytes();
}

std::string Answer(const std::string& status, const std::string& header = "") {
  return "HTTP/1.1 " + status + " x\r\n" + header + "Content-Length: 0\r\n\r\n";
}

TEST(OtlpTest, PostsPackedLogRecordsToTheLogsPath) {
  logger_ref_reset();
  LogStream::AddSensitiveWord("s3cret");
  for (const char* end : {"", "/", "//"}) {
    Collector collector;
    OtlpTransport transport(collector.Url() + end);
    TrackFields fields;
    fields.Text(TrackField::kEventId, "17")
        .Text(TrackField::kArgs, "s3cret \xff \xe2\x82\xac")
        .Number(TrackField::kParam, -5);
    const std::string stored = RecordOf(fields);
    TrackEvent event;
    ASSERT_TRUE(ReadTrackEvent(stored, &event));
    const std::string record = transport.Encode(event);
    EXPECT_EQ(transport.Send({record, record}).outcome, TrackOutcome::kAccepted);
    const zelctl::LoopbackRequest request = collector.WaitForRequests(1).at(0);
    EXPECT_EQ(request.method + " " + request.target, "POST /v1/logs");
    EXPECT_EQ(request.Header("content-type"), "application/json");
    Json::Value value;
    ASSERT_TRUE(Json::Reader().parse(request.body, value)) << request.body;
    const Json::Value scope = value["resourceLogs"][0]["scopeLogs"][0];
    ASSERT_EQ(scope["logRecords"].size(), 2U);
    const Json::Value& log = scope["logRecords"][1];
    EXPECT_EQ(log["timeUnixNano"], "1700000000123000000");
    EXPECT_EQ(log["body"]["stringValue"], "17");
    const std::string text = Json::FastWriter().write(log["attributes"]);
    EXPECT_NE(request.body.find("*** \xef\xbf\xbd \xe2\x82\xac"), std::string::npos);
    EXPECT_NE(text.find(R"({"key":"param","value":{"intValue":"-5"}})"), std::string::npos);
  }
  logger_ref_reset();
}

TEST(OtlpTest, TellsWhatToRepeatFromWhatToGiveUp) {
  constexpr std::int64_t kAny = -1;
  const struct {
    std::string answer;
    TrackOutcome outcome;
    std::int64_t retryAfterMs;
  } cases[] = {
      {Collector::kAccepted, TrackOutcome::kAccepted, 0},
      {Answer("202"), TrackOutcome::kAccepted, 0},
      {Answer("400"), TrackOutcome::kRefused, 0},
      {Answer("404"), TrackOutcome::kRefused, 0},
      {Answer("413"), TrackOutcome::kRefused, 0},
      {Answer("500"), TrackOutcome::kRefused, 0},
      {Answer("302", "Location: http://127.0.0.1:9/\r\n"), TrackOutcome::kRetry, 0},
      {Answer("502"), TrackOutcome::kRetry, 0},
      {Answer("503"), TrackOutcome::kRetry, 0},
      {Answer("504", "Retry-After: 2\r\n"), TrackOutcome::kRetry, 2000},
      {Answer("429", "Retry-After: 7\r\n"), TrackOutcome::kRetry, 7000},
      {Answer("429", "Retry-After: Fri, 31 Dec 2199 23:59:59 GMT\r\n"), TrackOutcome::kRetry,
       3600000},
      {Answer("503", "Retry-After: 99999999999999999999\r\n"), TrackOutcome::kRetry, kAny},
      {Answer("503", "Retry-After: -7\r\n"), TrackOutcome::kRetry, kAny},
      {"", TrackOutcome::kRetry, 0},                                               // closed at once
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{", TrackOutcome::kRetry, 0},  // half-way
      {"nonsense", TrackOutcome::kRetry, 0},
  };
  for (const auto& each : cases) {
    Collector collector({each.answer});
    OtlpTransport transport(collector.Url());
    const TrackAnswer answer = transport.Send({"{}"});
    EXPECT_EQ(answer.outcome, each.outcome) << each.answer;
    EXPECT_GE(answer.retryAfterMs, 0) << each.answer;
    EXPECT_LE(answer.retryAfterMs, 3600000) << each.answer;
    if (each.retryAfterMs != kAny) {
      EXPECT_EQ(answer.retryAfterMs, each.retryAfterMs) << each.answer;
    }
    EXPECT_EQ(answer.reason.empty(), each.outcome == TrackOutcome::kAccepted) << each.answer;
  }
  OtlpTransport nobody("http://127.0.0.1:9");
  EXPECT_EQ(nobody.Send({"{}"}).outcome, TrackOutcome::kRetry);
}

TEST(OtlpTest, LogsWhatACollectorDidNotUse) {
  support::TempDir dir;
  logger_ref_reset();
  ASSERT_EQ(LogStream::InitLog("native_sdk", dir.File("log.txt").c_str(), 0, 0, 2), 0);
  const auto send = [](const std::string& body) {
    Collector collector(
        {"HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body});
    EXPECT_EQ(OtlpTransport(collector.Url()).Send({"{}"}).outcome, TrackOutcome::kAccepted);
  };
  for (const char* body :
       {"{}", "[]", "{\"partialSuccess\":7}", "{\"partialSuccess\":{\"rejectedLogRecords\":\"0\"}}",
        "{\"partialSuccess\":{\"rejectedLogRecords\":{}}}", "no JSON", ""}) {
    send(body);
  }
  EXPECT_EQ(support::ReadWholeFile(dir.File("log.txt")), "");
  send("{\"partialSuccess\":{\"rejectedLogRecords\":\"3\"}}");
  EXPECT_NE(support::ReadWholeFile(dir.File("log.txt")).find("did not use 3 events"),
            std::string::npos);
  logger_ref_reset();
}

TEST(OtlpTest, TakesWebAddressesOnly) {
  for (const char* address : {"http://collector:4318", "https://collector/base"}) {
    EXPECT_TRUE(OtlpTransport::Takes(address)) << address;
  }
  for (const char* address : {"", "collector:4318", "file:///etc/passwd", "grpc://collector"}) {
    EXPECT_FALSE(OtlpTransport::Takes(address)) << address;
  }
}

}  // namespace
