// How events leave the spool: batches, back-off, refusals, stops, purges.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TempDir.h"
#include "track/TrackEvent.h"
#include "track/TrackSpool.h"
#include "track/TrackUploader.h"

namespace {

using namespace std::chrono_literals;
constexpr std::int64_t kNowMs = 1700000000000;
constexpr auto kDeadline = 60s;  // only a hang takes that long

// Takes batches and answers as it is told to.
class ScriptedTransport : public TrackTransport {
 public:
  std::string Encode(const TrackEvent& event) const override {
    return std::string(event.Find(TrackField::kText)->text);
  }
  TrackAnswer Send(const std::vector<std::string>& batch) override {
    std::unique_lock<std::mutex> hold(m_lock);
    m_batches.push_back(batch);
    m_times.push_back(std::chrono::steady_clock::now());
    m_changed.notify_all();
    m_changed.wait(hold, [&] { return !m_hangs; });
    if (m_answers.empty()) return {};
    const TrackAnswer answer = m_answers.front();
    m_answers.pop_front();
    return answer;
  }

  void Answer(std::deque<TrackAnswer> answers) { m_answers = std::move(answers); }
  void Hang(bool hangs) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_hangs = hangs;
    m_changed.notify_all();
  }
  std::vector<std::vector<std::string>> WaitForBatches(std::size_t count) {
    std::unique_lock<std::mutex> hold(m_lock);
    EXPECT_TRUE(m_changed.wait_for(hold, kDeadline, [&] { return m_batches.size() >= count; }));
    return m_batches;
  }
  std::vector<std::chrono::steady_clock::time_point> Times() {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_times;
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_hangs = false;
  std::deque<TrackAnswer> m_answers;
  std::vector<std::vector<std::string>> m_batches;
  std::vector<std::chrono::steady_clock::time_point> m_times;
};

std::mutex g_problemLock;
std::vector<std::string> g_problems;
void KeepProblem(const std::string& text) {
  const std::lock_guard<std::mutex> hold(g_problemLock);
  g_problems.push_back(text);
}
std::vector<std::string> Problems() {
  const std::lock_guard<std::mutex> hold(g_problemLock);
  return g_problems;
}

class TrackUploadTest : public testing::Test {
 protected:
  TrackUploadTest() {
    TrackKey key;
    m_spool = std::make_shared<TrackSpool>(m_dir.Path() + "/", key, TrackLimits());
    EXPECT_TRUE(m_spool->Open(kNowMs));
    m_options.interval = 1h;
    m_options.firstBackOff = 2ms;
    m_options.longestWait = 10ms;
    m_options.onProblem = KeepProblem;
    g_problems.clear();
  }

  void Store(const std::string& text) {
    std::string record;
    AppendTrackHead({}, &record);
    TrackFields fields;
    fields.Text(TrackField::kText, text.c_str());
    ASSERT_TRUE(m_spool->Append(record + fields.Bytes(), kNowMs));
  }
  void StoreNumbers(int count) {
    for (int i = 0; i < count; ++i) Store(std::to_string(i));
  }
  void Start() { m_uploader = std::make_unique<TrackUploader>(m_spool, m_transport, m_options); }
  // All that was sent, in order, once `batches` have been and the thread has ended.
  std::vector<std::string> Sent(std::size_t batches) {
    m_transport->WaitForBatches(batches);
    EXPECT_TRUE(m_uploader->Stop(kDeadline));
    std::vector<std::string> all;
    for (const auto& batch : m_transport->WaitForBatches(batches)) {
      all.insert(all.end(), batch.begin(), batch.end());
    }
    return all;
  }

  support::TempDir m_dir;
  TrackUploadOptions m_options;
  std::shared_ptr<TrackSpool> m_spool;
  std::shared_ptr<ScriptedTransport> m_transport = std::make_shared<ScriptedTransport>();
  std::unique_ptr<TrackUploader> m_uploader;
};

TEST_F(TrackUploadTest, SendsFullBatchesOnceAndInOrderAndGivesARefusedOneUp) {
  m_options.batchBytes = 5000;
  m_options.interval = 5ms;  // by itself
  m_transport->Answer({{TrackOutcome::kRefused, 0, "status 400"}});
  StoreNumbers(1100);
  for (const std::size_t size : {3000U, 3000U, 9000U, 10U}) Store(std::string(size, 'x'));
  Start();
  const std::vector<std::string> sent = Sent(6);
  ASSERT_EQ(sent.size(), 1104U);
  for (std::size_t i = 0; i < 1100; ++i) ASSERT_EQ(sent[i], std::to_string(i));
  std::vector<std::size_t> counts;
  for (const auto& batch : m_transport->WaitForBatches(6)) counts.push_back(batch.size());
  EXPECT_EQ(counts, (std::vector<std::size_t>{512, 512, 77, 1, 1, 1}));
  EXPECT_EQ(m_spool->Pending(), 0U);
  EXPECT_EQ(Problems(), std::vector<std::string>{"track: 512 events given up, status 400"});
}

TEST_F(TrackUploadTest, SendsAgainUntilItIsAcceptedAndNotBeforeItMay) {
  constexpr auto kWish = 150ms;
  m_transport->Answer({{TrackOutcome::kRetry, 0, "status 503"},
                       {TrackOutcome::kRetry, kWish.count(), "status 429"},
                       {TrackOutcome::kRetry, 0, "no connection"}});
  StoreNumbers(3);
  Start();
  m_uploader->Request();
  const auto batches = m_transport->WaitForBatches(4);
  for (const auto& batch : batches) EXPECT_EQ(batch, (std::vector<std::string>{"0", "1", "2"}));
  const auto times = m_transport->Times();
  EXPECT_GE(times[2] - times[1], kWish);
  EXPECT_TRUE(m_uploader->Stop(kDeadline));
  EXPECT_EQ(m_spool->Pending(), 0U);
  EXPECT_EQ(Problems(), std::vector<std::string>{"track: events wait, status 503"});
}

TEST_F(TrackUploadTest, KeepsWhatWasNotSentWhenItIsStoppedDuringABackOff) {
  m_options.firstBackOff = 1h;
  m_options.longestWait = 1h;
  m_transport->Answer({{TrackOutcome::kRetry, 0, "no connection"}});
  StoreNumbers(3);
  Start();
  m_uploader->Request();
  m_transport->WaitForBatches(1);
  EXPECT_TRUE(m_uploader->Stop(kDeadline));
  EXPECT_EQ(m_transport->WaitForBatches(1).size(), 1U);
  EXPECT_EQ(m_spool->Pending(), 3U);
}

// The first thread hangs; the second one must neither send the same nor be hindered for good.
TEST_F(TrackUploadTest, LeavesAHangingExchangeBehindAndStillSendsEachEventOnce) {
  m_transport->Hang(true);
  StoreNumbers(2);
  Start();
  m_uploader->Request();
  m_transport->WaitForBatches(1);
  EXPECT_FALSE(m_uploader->Stop(1ms));
  Start();
  Store("2");
  m_uploader->Request();
  m_transport->Hang(false);
  EXPECT_EQ(Sent(2), (std::vector<std::string>{"0", "1", "2"}));
  EXPECT_EQ(m_spool->Pending(), 0U);
}

}  // namespace
