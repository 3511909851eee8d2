// How events leave the spool: batches, back-off, refusals, stops, purges.
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Arrivals.h"
#include "support/TempDir.h"
#include "track/TrackEvent.h"
#include "track/TrackSpool.h"
#include "track/TrackUploader.h"

namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

constexpr std::int64_t kNowMs = 1700000000000;
constexpr auto kDeadline = 60s;  // only a hang takes that long

// Takes batches and answers as it is told to; hangs while `sending` is locked.
struct ScriptedTransport : TrackTransport {
  std::string Encode(const TrackEvent& event) const override {
    return std::string(event.Find(TrackField::kText)->text);
  }
  TrackAnswer Send(const Texts& batch) override {
    times.push_back(std::chrono::steady_clock::now());
    batches.Add(batch);
    const std::lock_guard<std::mutex> hold(sending);
    if (answers.empty()) return {};
    const TrackAnswer answer = answers.front();
    answers.pop_front();
    return answer;
  }

  support::Arrivals<Texts> batches;
  std::mutex sending;
  std::deque<TrackAnswer> answers;
  std::vector<std::chrono::steady_clock::time_point> times;
};

support::Arrivals<std::string>* g_problems = nullptr;

class TrackUploadTest : public testing::Test {
 protected:
  TrackUploadTest() {
    EXPECT_TRUE(m_spool->Open(kNowMs));
    m_options.interval = 1h;
    m_options.firstBackOff = 2ms;
    m_options.longestWait = 10ms;
    m_options.onProblem = [](const std::string& text) { g_problems->Add(text); };
    g_problems = &m_problems;
  }

  void Store(const std::string& text) {
    std::string record;
    AppendTrackHead({}, &record);
    TrackFields fields;
    fields.Text(TrackField::kText, text.c_str());
    ASSERT_TRUE(m_spool->Append(record + fields.Bytes(), kNowMs));
  }
  void Start() {
    m_uploader = std::make_unique<TrackUploader>(m_spool, m_transport, m_options);
    m_uploader->Request();
  }

  support::TempDir m_dir;
  support::Arrivals<std::string> m_problems;
  TrackUploadOptions m_options;
  std::shared_ptr<TrackSpool> m_spool =
      std::make_shared<TrackSpool>(m_dir.Path() + "/", TrackKey(), TrackLimits());
  std::shared_ptr<ScriptedTransport> m_transport = std::make_shared<ScriptedTransport>();
  std::unique_ptr<TrackUploader> m_uploader;
};

TEST_F(TrackUploadTest, SendsFullBatchesOnceAndInOrderAndGivesARefusedOneUp) {
  m_options.batchBytes = 5000;
  m_options.interval = 5ms;  // by itself
  m_transport->answers = {{TrackOutcome::kRefused, 0, "status 400"}};
  for (int i = 0; i < 1100; ++i) Store(std::to_string(i));
  for (const std::size_t size : {3000U, 3000U, 9000U, 10U}) Store(std::string(size, 'x'));
  m_uploader = std::make_unique<TrackUploader>(m_spool, m_transport, m_options);
  std::vector<std::size_t> counts;
  int next = 0;
  for (const Texts& batch : m_transport->batches.Take(6)) {
    counts.push_back(batch.size());
    for (const std::string& text : batch) {
      ASSERT_TRUE(text[0] == 'x' || text == std::to_string(next++)) << text;
    }
  }
  EXPECT_EQ(counts, (std::vector<std::size_t>{512, 512, 77, 1, 1, 1}));
  EXPECT_EQ(next, 1100);
  EXPECT_TRUE(m_uploader->Stop(kDeadline));
  EXPECT_EQ(m_spool->Pending(), 0U);
  EXPECT_EQ(m_problems.Take(), Texts{"track: 512 events given up, status 400"});
}

TEST_F(TrackUploadTest, SendsAgainUntilItIsAcceptedAndNotBeforeItMay) {
  m_transport->answers = {{TrackOutcome::kRetry, 0, "status 503"},
                          {TrackOutcome::kRetry, 150, "status 429"},
                          {TrackOutcome::kRetry, 0, "no connection"}};
  Store("0");
  Start();
  EXPECT_EQ(m_transport->batches.Take(4), std::vector<Texts>(4, Texts{"0"}));
  EXPECT_TRUE(m_uploader->Stop(kDeadline));
  EXPECT_GE(m_transport->times[2] - m_transport->times[1], 150ms);
  EXPECT_EQ(m_spool->Pending(), 0U);
  EXPECT_EQ(m_problems.Take(), Texts{"track: events wait, status 503"});
}

// The first thread hangs; the second one must neither send the same nor be hindered for good.
TEST_F(TrackUploadTest, LeavesAHangingExchangeBehindAndStillSendsEachEventOnce) {
  Store("0");
  {
    const std::lock_guard<std::mutex> hanging(m_transport->sending);
    Start();
    EXPECT_EQ(m_transport->batches.Take(), std::vector<Texts>{{"0"}});
    EXPECT_FALSE(m_uploader->Stop(1ms));
    Start();
    Store("1");
    m_uploader->Request();
  }
  EXPECT_EQ(m_transport->batches.Take(), std::vector<Texts>{{"1"}});
  EXPECT_TRUE(m_uploader->Stop(kDeadline));
  EXPECT_EQ(m_spool->Pending(), 0U);
}

// As when the user withdraws his consent: what the reader holds, and the event that its last batch
// had no room for, are gone with the rest.
TEST_F(TrackUploadTest, SendsNothingThatWasPurgedDuringAnExchange) {
  m_options.batchBytes = 1;
  for (const char* text : {"0", "1", "2"}) Store(text);
  {
    const std::lock_guard<std::mutex> hanging(m_transport->sending);
    Start();
    EXPECT_EQ(m_transport->batches.Take(), std::vector<Texts>{{"0"}});
    m_spool->Purge();
  }
  Store("later");
  m_uploader->Request();
  EXPECT_EQ(m_transport->batches.Take(), std::vector<Texts>{{"later"}});
  EXPECT_TRUE(m_uploader->Stop(kDeadline));
}

}  // namespace
