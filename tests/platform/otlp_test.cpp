#include <sys/socket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "logger/logger_ref.h"
#include "track/OtlpTransport.h"

namespace {

// What the transport makes of an answer.
TrackAnswer AnswerTo(const std::string& bytes) {
  zelctl::LoopbackServer collector(SOCK_STREAM, [&bytes](int client) {
    zelctl::LoopbackRequest request;
    ASSERT_TRUE(zelctl::ReadRequest(client, &request));
    EXPECT_EQ(request.target, "/v1/logs");
    (void)zelctl::SendAll(client, bytes);
  });
  OtlpTransport transport("http://127.0.0.1:" + std::to_string(collector.Port()) + "//");
  return transport.Send({"{}"});
}

TEST(OtlpTest, TellsWhatToRepeatFromWhatToGiveUp) {
  const struct {
    std::string answer;
    TrackOutcome outcome;
    std::int64_t retryAfterMs;
  } cases[] = {
      {"202 x\r\n", TrackOutcome::kAccepted, 0},
      {"400 x\r\n", TrackOutcome::kRefused, 0},
      {"500 x\r\n", TrackOutcome::kRefused, 0},
      {"302 x\r\nLocation: http://127.0.0.1:9/\r\n", TrackOutcome::kRetry, 0},
      {"502 x\r\n", TrackOutcome::kRetry, 0},
      {"503 x\r\nRetry-After: -7\r\n", TrackOutcome::kRetry, 0},
      {"504 x\r\nRetry-After: 2\r\n", TrackOutcome::kRetry, 2000},
      {"429 x\r\nRetry-After: Fri, 31 Dec 2199 23:59:59 GMT\r\n", TrackOutcome::kRetry, 3600000},
      {"200 but nothing more\r\nContent-Length: 9\r\n", TrackOutcome::kRetry, 0}};
  for (const auto& each : cases) {
    const TrackAnswer answer = AnswerTo("HTTP/1.1 " + each.answer + "\r\n");
    EXPECT_EQ(answer.outcome, each.outcome) << each.answer;
    EXPECT_EQ(answer.retryAfterMs, each.retryAfterMs) << each.answer;
    EXPECT_EQ(answer.reason.empty(), each.outcome == TrackOutcome::kAccepted) << each.answer;
  }
}

TEST(OtlpTest, LogsWhatACollectorDidNotUse) {
  std::vector<std::string> lines;
  logger_ref_set_sink([&lines](const LogSinkLine& line) { lines.push_back(line.text); });
  const std::string bodies[] = {"{}",
                                "[]",
                                R"({"partialSuccess":7})",
                                R"({"partialSuccess":{"rejectedLogRecords":"0"}})",
                                R"({"partialSuccess":{"rejectedLogRecords":{}}})",
                                "no JSON",
                                std::string(5000, '['),
                                R"({"partialSuccess":{"rejectedLogRecords":"3"}})"};
  for (const std::string& body : bodies) {
    EXPECT_EQ(AnswerTo("HTTP/1.1 200 OK\r\n\r\n" + body).outcome, TrackOutcome::kAccepted);
  }
  logger_ref_reset();
  EXPECT_EQ(lines,
            std::vector<std::string>{"track: the collector did not use 3 events of a batch"});
}

TEST(OtlpTest, TakesWebAddressesOnly) {
  for (const char* address : {"http://collector:4318", "https://collector/base"}) {
    EXPECT_TRUE(OtlpTransport::Takes(address)) << address;
  }
  for (const char* address : {"", "collector:4318", "file:///etc/passwd"}) {
    EXPECT_FALSE(OtlpTransport::Takes(address)) << address;
  }
}

}  // namespace
