// A synchronous push to the command worker against a bare hand-over there and back.
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "Ratio.h"
#include "util/MsgMgr.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr int kPushes = 2000;

// One slot, one worker, a mutex and two condition variables.
class BareWorker {
 public:
  BareWorker() : m_thread([this] { Run(); }) {}
  ~BareWorker() {
    {
      const std::lock_guard<std::mutex> hold(m_lock);
      m_stop = true;
    }
    m_asked.notify_one();
    m_thread.join();
  }

  int Push(int value) {
    std::unique_lock<std::mutex> hold(m_lock);
    m_value = value;
    m_pending = true;
    m_asked.notify_one();
    m_answered.wait(hold, [this] { return !m_pending; });
    return m_value;
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> hold(m_lock);
    for (;;) {
      m_asked.wait(hold, [this] { return m_pending || m_stop; });
      if (m_stop) return;
      m_pending = false;
      m_answered.notify_one();
    }
  }

  std::mutex m_lock;
  std::condition_variable m_asked;
  std::condition_variable m_answered;
  int m_value = 0;
  bool m_pending = false;
  bool m_stop = false;
  std::thread m_thread;  // last: it uses the others
};

}  // namespace

void BenchWorker() {
  auto& worker = commonutil::MsgMainThreadMgrHandler::GetInst();
  BareWorker bare;
  const std::function<int()> command = [] { return 7; };
  Compare(
      {"worker: synchronous push", "bare mutex and condition variable", 1.3, kRounds, kPushes},
      [&] {
        for (int i = 0; i < kPushes; ++i) (void)worker.PushCmd(command, "bench");
      },
      [&] {
        for (int i = 0; i < kPushes; ++i) (void)bare.Push(i);
      });
}

}  // namespace bench
