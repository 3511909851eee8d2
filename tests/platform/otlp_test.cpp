#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "logger/logger_ref.h"
#include "support/Collector.h"
#include "track/OtlpTransport.h"
#include "track/TrackEvent.h"
#include "zel_platform/logger.h"

namespace {

using support::Collector;

std::string Answer(const std::string& status, const std::string& header = "") {
  return "HTTP/1.1 " + status + " x\r\n" + header + "Content-Length: 0\r\n\r\n";
}

class OtlpTest : public testing::Test {
 protected:
  OtlpTest() { logger_ref_reset(); }
  ~OtlpTest() override { logger_ref_reset(); }
};

TEST_F(OtlpTest, PostsPackedLogRecordsToTheLogsPath) {
  LogStream::AddSensitiveWord("s3cret");
  TrackFields fields;
  fields.Text(TrackField::kEventId, "17").Text(TrackField::kArgs, "s3cret \xff \xe2\x82\xac");
  std::string stored;
  AppendTrackHead({TrackKind::kUserTrack, 1700000000123, 1, {}}, &stored);
  stored += fields.Number(TrackField::kParam, -5).Bytes();
  TrackEvent event;
  ASSERT_TRUE(ReadTrackEvent(stored, &event));
  Collector collector;
  OtlpTransport transport(collector.Url() + "//");
  const std::string record = transport.Encode(event);
  EXPECT_EQ(transport.Send({record, record}).outcome, TrackOutcome::kAccepted);
  const zelctl::LoopbackRequest request = collector.WaitForRequests(1).at(0);
  EXPECT_EQ(request.method + " " + request.target, "POST /v1/logs");
  EXPECT_EQ(request.Header("content-type"), "application/json");
  Json::Value value;
  ASSERT_TRUE(Json::Reader().parse(request.body, value)) << request.body;
  const Json::Value log = value["resourceLogs"][0]["scopeLogs"][0]["logRecords"][1];
  EXPECT_EQ(log["timeUnixNano"], "1700000000123000000");
  EXPECT_EQ(log["body"]["stringValue"], "17");
  for (const char* text : {"*** \xef\xbf\xbd \xe2\x82\xac", R"("value":{"intValue":"-5"})"}) {
    EXPECT_NE(request.body.find(text), std::string::npos) << request.body;
  }
}

TEST_F(OtlpTest, TellsWhatToRepeatFromWhatToGiveUp) {
  const struct {
    std::string answer;
    TrackOutcome outcome;
    std::int64_t retryAfterMs;
  } cases[] = {
      {Answer("202"), TrackOutcome::kAccepted, 0},
      {Answer("400"), TrackOutcome::kRefused, 0},
      {Answer("500"), TrackOutcome::kRefused, 0},
      {Answer("302", "Location: http://127.0.0.1:9/\r\n"), TrackOutcome::kRetry, 0},
      {Answer("502"), TrackOutcome::kRetry, 0},
      {Answer("503", "Retry-After: -7\r\n"), TrackOutcome::kRetry, 0},
      {Answer("504", "Retry-After: 2\r\n"), TrackOutcome::kRetry, 2000},
      {Answer("429", "Retry-After: Fri, 31 Dec 2199 23:59:59 GMT\r\n"), TrackOutcome::kRetry,
       3600000},
      {"", TrackOutcome::kRetry, 0},                                               // closed at once
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{", TrackOutcome::kRetry, 0},  // half-way
  };
  for (const auto& each : cases) {
    Collector collector({each.answer});
    const TrackAnswer answer = OtlpTransport(collector.Url()).Send({"{}"});
    EXPECT_EQ(answer.outcome, each.outcome) << each.answer;
    EXPECT_EQ(answer.retryAfterMs, each.retryAfterMs) << each.answer;
    EXPECT_EQ(answer.reason.empty(), each.outcome == TrackOutcome::kAccepted) << each.answer;
  }
}

TEST_F(OtlpTest, LogsWhatACollectorDidNotUse) {
  std::vector<std::string> lines;
  logger_ref_set_sink([&lines](const LogSinkLine& line) { lines.push_back(line.text); });
  for (const char* body :
       {"{}", "[]", R"({"partialSuccess":7})", R"({"partialSuccess":{"rejectedLogRecords":"0"}})",
        R"({"partialSuccess":{"rejectedLogRecords":{}}})", "no JSON",
        R"({"partialSuccess":{"rejectedLogRecords":"3"}})"}) {
    Collector collector({std::string("HTTP/1.1 200 OK\r\n\r\n") + body});
    EXPECT_EQ(OtlpTransport(collector.Url()).Send({"{}"}).outcome, TrackOutcome::kAccepted);
  }
  EXPECT_EQ(lines,
            std::vector<std::string>{"track: the collector did not use 3 events of a batch"});
}

TEST_F(OtlpTest, TakesWebAddressesOnly) {
  for (const char* address : {"http://collector:4318", "https://collector/base"}) {
    EXPECT_TRUE(OtlpTransport::Takes(address)) << address;
  }
  for (const char* address : {"", "collector:4318", "file:///etc/passwd"}) {
    EXPECT_FALSE(OtlpTransport::Takes(address)) << address;
  }
}

}  // namespace
