// A synchronous push to the command worker against a bare hand-over there and back.
#include <sched.h>

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

// Keeps the calling thread on one core: a wake-up across cores costs several times one on the
// same core, and where the scheduler puts two threads is chance.
int PinHere(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(core, &cores);
  return sched_setaffinity(0, sizeof(cores), &cores);
}

void BenchOnCores(const char* what, int callerCore, int workerCore) {
  auto& worker = commonutil::MsgMainThreadMgrHandler::GetInst();
  const std::function<int()> pin = [workerCore] { return PinHere(workerCore); };
  (void)worker.PushCmd(pin, "bench");
  (void)PinHere(workerCore);
  BareWorker bare;  // stays where it was started
  (void)PinHere(callerCore);
  const std::function<int()> command = [] { return 7; };
  Compare(
      {what, "bare mutex and condition variable", 1.3, kRounds, kPushes},
      [&] {
        for (int i = 0; i < kPushes; ++i) (void)worker.PushCmd(command, "bench");
      },
      [&] {
        for (int i = 0; i < kPushes; ++i) (void)bare.Push(i);
      });
}

}  // namespace

void BenchWorker() {
  BenchOnCores("worker: synchronous push, one core", 0, 0);
  BenchOnCores("worker: synchronous push, across cores", 0, 1);
}

}  // namespace bench
