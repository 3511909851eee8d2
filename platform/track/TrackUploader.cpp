#include "track/TrackUploader.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr char kThreadName[] = "zel_track";
constexpr std::uint32_t kMostDoublings = 20;

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

}  // namespace

class TrackUploader::Work {
 public:
  Work(std::shared_ptr<TrackSpool> spool, std::shared_ptr<TrackTransport> transport,
       const TrackUploadOptions& options)
      : m_options(options), m_transport(std::move(transport)), m_spool(std::move(spool)) {}

  void Run();
  void Request();
  void EventAdded(std::uint64_t pending);
  void RequestStop(milliseconds patience);
  bool WaitForEnd(milliseconds patience);

 private:
  struct Batch {
    std::vector<std::string> events;
    TrackPosition end;
    std::uint64_t damaged = 0;
  };

  bool WaitUntilDue();
  Clock::time_point DueLocked();
  void DrainSafely() noexcept;
  void Drain();
  bool Fill(TrackReader* reader, Batch* batch);
  bool Deliver(const Batch& batch);
  void BackOff(const TrackAnswer& answer);
  bool IsPastTheEnd();
  void Tell(const std::string& text) const;

  const TrackUploadOptions m_options;
  const std::shared_ptr<TrackTransport> m_transport;

  // Owned by the thread.
  std::shared_ptr<TrackSpool> m_spool;  // let go at the thread's end
  std::string m_carried;                // an encoded event that the batch before had no room for
  TrackPosition m_carriedEnd;
  std::uint32_t m_failures = 0;
  std::minstd_rand m_random{std::random_device()()};

  std::mutex m_lock;  // guards the rest; never held while the transport or a file is used
  std::condition_variable m_changed;
  bool m_woken = false;
  bool m_requested = false;
  bool m_stopping = false;
  bool m_ended = false;
  Clock::time_point m_stopBy;
  Clock::time_point m_notBefore;     // while a failure is waited out
  Clock::time_point m_waitingSince;  // of the oldest event that waits; zero: none known
};

void TrackUploader::Work::Request() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_requested = true;
  m_woken = true;
  m_changed.notify_all();
}

// Only the first waiting event and a full batch concern the thread.
void TrackUploader::Work::EventAdded(std::uint64_t pending) {
  if (pending != 1 && pending != m_options.batchEvents) return;
  const std::lock_guard<std::mutex> hold(m_lock);
  m_woken = true;
  m_changed.notify_all();
}

void TrackUploader::Work::RequestStop(milliseconds patience) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_stopping = true;
  m_stopBy = Clock::now() + patience;
  m_changed.notify_all();
}

bool TrackUploader::Work::WaitForEnd(milliseconds patience) {
  std::unique_lock<std::mutex> hold(m_lock);
  return m_changed.wait_for(hold, patience, [&] { return m_ended; });
}

void TrackUploader::Work::Run() {
  (void)::pthread_setname_np(::pthread_self(), kThreadName);  // a name is a help, no more
  while (WaitUntilDue()) DrainSafely();
  m_spool.reset();  // who waits for the end may open the spool anew
  const std::lock_guard<std::mutex> hold(m_lock);
  m_ended = true;
  m_changed.notify_all();
}

// When the next batch is to be sent; the far end of time when nothing waits.
Clock::time_point TrackUploader::Work::DueLocked() {
  const std::uint64_t pending = m_spool->Pending();
  if (pending == 0) {
    m_requested = false;
    m_waitingSince = {};
    return Clock::time_point::max();
  }
  if (m_waitingSince == Clock::time_point()) m_waitingSince = Clock::now();
  const bool now = m_requested || pending >= m_options.batchEvents;
  return std::max(now ? m_waitingSince : m_waitingSince + m_options.interval, m_notBefore);
}

// False when the thread is to end. A stop drains once more, unless the other side needs time.
bool TrackUploader::Work::WaitUntilDue() {
  std::unique_lock<std::mutex> hold(m_lock);
  while (!m_stopping) {
    const Clock::time_point due = DueLocked();
    if (due <= Clock::now()) break;
    m_woken = false;
    const auto changed = [&] { return m_woken || m_stopping; };
    if (due == Clock::time_point::max()) {
      m_changed.wait(hold, changed);
    } else {
      (void)m_changed.wait_until(hold, due, changed);  // the loop looks again
    }
  }
  m_requested = false;
  m_waitingSince = {};
  if (!m_stopping) return true;
  return m_spool->Pending() > 0 && m_notBefore <= Clock::now() && Clock::now() < m_stopBy;
}

// Without memory the events stay where they are.
void TrackUploader::Work::DrainSafely() noexcept {
  try {
    Drain();
  } catch (...) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_notBefore = Clock::now() + m_options.longestWait;
  }
}

// Sends what waits now. What is added meanwhile, problem reports too, waits for the next time. A
// purge ends it: what was read before, and what waits in memory, is not to be sent any more.
void TrackUploader::Work::Drain() {
  const std::lock_guard<std::mutex> reading(m_spool->ReadingLock());  // a stopped one may wind down
  const std::uint64_t purges = m_spool->Purges();
  TrackReader reader(*m_spool);
  m_carried.clear();
  for (;;) {
    Batch batch;
    const bool more = Fill(&reader, &batch);
    if (m_spool->Purges() != purges) return;
    if (!Deliver(batch) || !more || IsPastTheEnd()) return;
  }
}

// False when the reader has come to its end.
bool TrackUploader::Work::Fill(TrackReader* reader, Batch* batch) {
  std::size_t bytes = 0;
  const auto add = [&](std::string encoded) {
    bytes += encoded.size() + 1;
    batch->events.push_back(std::move(encoded));
  };
  if (!m_carried.empty()) {
    add(std::exchange(m_carried, {}));
    batch->end = m_carriedEnd;
  }
  std::string record;
  while (batch->events.size() < m_options.batchEvents) {
    if (!reader->Next(&record)) {
      batch->end = reader->Position();
      batch->damaged += reader->TakeDamaged();
      return false;
    }
    batch->damaged += reader->TakeDamaged();
    TrackEvent event;
    if (!ReadTrackEvent(record, &event)) {
      ++batch->damaged;
      batch->end = reader->Position();
      continue;
    }
    std::string encoded = m_transport->Encode(event);
    if (!batch->events.empty() && bytes + encoded.size() > m_options.batchBytes) {
      m_carried = std::move(encoded);
      m_carriedEnd = reader->Position();
      return true;
    }
    add(std::move(encoded));
    batch->end = reader->Position();
  }
  return true;
}

// False when the batch is to be sent again later.
bool TrackUploader::Work::Deliver(const Batch& batch) {
  if (batch.events.empty() && batch.damaged == 0) return true;
  TrackAnswer answer;
  if (!batch.events.empty()) answer = m_transport->Send(batch.events);
  if (answer.outcome == TrackOutcome::kRetry) {
    BackOff(answer);
    return false;
  }
  m_failures = 0;
  if (answer.outcome == TrackOutcome::kRefused) {
    Tell("track: " + std::to_string(batch.events.size()) + " events given up, " + answer.reason);
  }
  if (!m_spool->Accept(batch.end, batch.damaged)) {
    Tell("track: the position in the spool cannot be written");
  }
  return true;
}

// Between half of the time and all of it, so that clients do not come back all at once.
void TrackUploader::Work::BackOff(const TrackAnswer& answer) {
  const std::uint32_t doublings = std::min(m_failures++, kMostDoublings);
  const std::int64_t longest = m_options.longestWait.count();
  const std::int64_t full = std::min(m_options.firstBackOff.count() << doublings, longest);
  std::uniform_int_distribution<std::int64_t> jitter(full / 2, full);
  const std::int64_t wait = std::max(jitter(m_random), answer.retryAfterMs);
  if (m_failures == 1) Tell("track: events wait, " + answer.reason);
  const std::lock_guard<std::mutex> hold(m_lock);
  m_requested = true;
  m_notBefore = Clock::now() + milliseconds(wait);
}

bool TrackUploader::Work::IsPastTheEnd() {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_stopping && Clock::now() >= m_stopBy;
}

void TrackUploader::Work::Tell(const std::string& text) const {
  if (m_options.onProblem != nullptr) m_options.onProblem(text);
}

TrackUploader::TrackUploader(std::shared_ptr<TrackSpool> spool,
                             std::shared_ptr<TrackTransport> transport,
                             const TrackUploadOptions& options)
    : m_work(std::make_shared<Work>(std::move(spool), std::move(transport), options)) {
  std::thread([work = m_work] { work->Run(); }).detach();
}

TrackUploader::~TrackUploader() { m_work->RequestStop(milliseconds(0)); }

void TrackUploader::Request() { m_work->Request(); }

void TrackUploader::EventAdded(std::uint64_t pending) { m_work->EventAdded(pending); }

bool TrackUploader::Stop(milliseconds patience) {
  m_work->RequestStop(patience);
  return m_work->WaitForEnd(patience);
}
