#include "track/TrackState.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <system_error>
#include <thread>
#include <utility>

#include "track/TrackEvent.h"

namespace {

constexpr char kThreadName[] = "zel_track_state";
constexpr char kStateKey[] = "zel_track_state";
constexpr std::chrono::seconds kInterval(60);

// What the cache functions take arrays of; see setAddCacheFun.
struct CacheRecord {
  std::int32_t autoId = 0;  // 0: the other side numbers the row
  std::string key;
  std::string value;
};

bool ReadMark(const std::string& text, TrackMark* mark) {
  char session[kTrackSessionLength + 1] = "";
  unsigned long long sequence = 0;
  if (std::sscanf(text.c_str(), "%36[0-9a-f-] %llu", session, &sequence) != 2) return false;
  *mark = {session, sequence};
  return mark->session.size() == kTrackSessionLength;
}

bool Load(const TrackCacheFunctions& functions, TrackMark* mark) {
  CacheRecord record;
  int count = 1;
  return functions.query(kStateKey, &record, &count) == 0 && count == 1 &&
         ReadMark(record.value, mark);
}

bool Store(const TrackCacheFunctions& functions, const TrackMark& mark) {
  const CacheRecord record = {0, kStateKey, mark.session + " " + std::to_string(mark.sequence)};
  return functions.batchAdd(&record, 1) == 0;
}

}  // namespace

// One session's thread and what it shares with the others.
class TrackState::Keeper {
 public:
  Keeper(Current current, Previous previous) : m_current(current), m_previous(previous) {}

  void Ready(const TrackCacheFunctions& functions);
  void Stop();
  void Run() noexcept;

 private:
  bool WaitForFunctions(TrackCacheFunctions* functions);
  bool WaitForInterval();
  void Keep();

  const Current m_current;
  const Previous m_previous;
  std::mutex m_lock;  // guards the rest; not held during a call
  std::condition_variable m_changed;
  TrackCacheFunctions m_functions;
  bool m_ready = false;
  bool m_stopping = false;
};

void TrackState::Keeper::Ready(const TrackCacheFunctions& functions) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_functions = functions;
  m_ready = true;
  m_changed.notify_all();
}

void TrackState::Keeper::Stop() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_stopping = true;
  m_changed.notify_all();
}

bool TrackState::Keeper::WaitForFunctions(TrackCacheFunctions* functions) {
  std::unique_lock<std::mutex> hold(m_lock);
  m_changed.wait(hold, [&] { return m_ready || m_stopping; });
  *functions = m_functions;
  return !m_stopping;
}

bool TrackState::Keeper::WaitForInterval() {
  std::unique_lock<std::mutex> hold(m_lock);
  return !m_changed.wait_for(hold, kInterval, [&] { return m_stopping; });
}

void TrackState::Keeper::Run() noexcept {
  (void)::pthread_setname_np(::pthread_self(), kThreadName);  // a name is a help, no more
  try {
    Keep();
  } catch (...) {  // the state is a convenience: without it only a gap goes unnoticed
  }
}

// A cache that takes nothing is left in peace for the rest of the session.
void TrackState::Keeper::Keep() {
  TrackCacheFunctions functions;
  if (!WaitForFunctions(&functions)) return;
  TrackMark mark;
  if (Load(functions, &mark)) m_previous(mark);
  TrackMark stored;
  do {
    mark = m_current();
    if (mark.session == stored.session && mark.sequence == stored.sequence) continue;
    if (!Store(functions, mark)) return;
    stored = mark;
  } while (WaitForInterval());
}

TrackState::TrackState(Current current, Previous previous)
    : m_current(current), m_previous(previous) {}

void TrackState::Register(const TrackCacheFunctions& functions) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_functions = functions;
  m_ready = false;
  m_awaiting.store(functions.batchAdd != nullptr && functions.query != nullptr);
}

TrackCacheFunctions TrackState::Registered() const {
  const std::lock_guard<std::mutex> hold(m_lock);
  return m_functions;
}

void TrackState::CommandEnded() {
  if (!m_awaiting.load(std::memory_order_relaxed) || !m_awaiting.exchange(false)) return;
  const std::lock_guard<std::mutex> hold(m_lock);
  m_ready = true;
  if (m_keeper != nullptr) m_keeper->Ready(m_functions);
}

void TrackState::Start() {
  auto keeper = std::make_shared<Keeper>(m_current, m_previous);
  try {
    std::thread([keeper] { keeper->Run(); }).detach();
  } catch (const std::system_error&) {  // the events matter more
    return;
  }
  const std::lock_guard<std::mutex> hold(m_lock);
  if (m_keeper != nullptr) m_keeper->Stop();
  if (m_ready) keeper->Ready(m_functions);
  m_keeper = std::move(keeper);
}

void TrackState::Stop() {
  const std::lock_guard<std::mutex> hold(m_lock);
  if (m_keeper != nullptr) m_keeper->Stop();
  m_keeper.reset();
}
