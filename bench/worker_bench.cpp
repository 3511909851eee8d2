// The command worker against a bare hand-over to a thread, and against the executor of a library.
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "PinnedWorker.h"
#include "Ratio.h"
#include "util/MsgMgr.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr int kPushes = 2000;
constexpr int kPosts = 20000;
const std::string kName = "int bench::Push(const std::function<int()> &, int)";  // usual length
constexpr char kBare[] = "bare mutex and condition variable";
constexpr char kAsio[] = "boost::asio::post and a future";

// A queue, its worker, a mutex and condition variables. Threads that it starts stay on the core
// of the one that makes it.
class BareWorker {
 public:
  BareWorker() : m_thread([this] { Run(); }) {}
  ~BareWorker() {
    Post([this] { m_stop = true; });
    m_thread.join();
  }
  BareWorker(const BareWorker&) = delete;
  BareWorker& operator=(const BareWorker&) = delete;

  void Post(std::function<void()> command) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_commands.push_back(std::move(command));
    m_asked.notify_one();
  }

  int Push(const std::function<int()>& command) {
    std::mutex lock;
    std::condition_variable answered;
    bool isDone = false;
    int result = 0;
    Post([&] {
      const std::lock_guard<std::mutex> hold(lock);
      result = command();
      isDone = true;
      answered.notify_one();
    });
    std::unique_lock<std::mutex> hold(lock);
    answered.wait(hold, [&] { return isDone; });
    return result;
  }

 private:
  std::function<void()> Take() {
    std::unique_lock<std::mutex> hold(m_lock);
    m_asked.wait(hold, [this] { return !m_commands.empty(); });
    std::function<void()> command = std::move(m_commands.front());
    m_commands.pop_front();
    return command;
  }
  void Run() {
    while (!m_stop) Take()();
  }

  std::mutex m_lock;
  std::condition_variable m_asked;
  std::deque<std::function<void()>> m_commands;  // guarded by m_lock
  bool m_stop = false;                           // of the worker
  std::thread m_thread;                          // last: it uses the others
};

class AsioWorker {
 public:
  void Post(std::function<void()> command) { boost::asio::post(m_pool, std::move(command)); }
  int Push(const std::function<int()>& command) {
    std::packaged_task<int()> task(command);
    std::future<int> result = task.get_future();
    boost::asio::post(m_pool, std::move(task));
    return result.get();
  }

 private:
  boost::asio::thread_pool m_pool{1};
};

class OurWorker {
 public:
  explicit OurWorker(int core) : m_pinned(core) {}

  void Post(std::function<void()> command) { m_worker.PushCmd(std::move(command), kName); }
  int Push(const std::function<int()>& command) { return m_worker.PushCmd(command, kName); }

 private:
  commonutil::MsgMainThreadMgr& m_worker = commonutil::MsgMainThreadMgrHandler::GetInst();
  PinnedWorker m_pinned;
};

template <class Worker>
void PushFrom(int callers, Worker& worker) {
  const auto push = [&] {
    const std::function<int()> command = [] { return 7; };
    for (int i = 0; i < kPushes / callers; ++i) (void)worker.Push(command);
  };
  std::vector<std::thread> others;
  for (int i = 1; i < callers; ++i) others.emplace_back(push);
  push();
  for (std::thread& other : others) other.join();
}

// What a command usually holds is more than fits into a std::function.
struct Row {
  char key[24];
};

template <class Worker>
void PostAndDrain(Worker& worker) {
  int bytes = 0;  // of the worker
  const Row row = {"config/entry/key"};
  for (int i = 0; i < kPosts; ++i) worker.Post([&bytes, row] { bytes += row.key[1]; });
  if (worker.Push([&bytes] { return bytes; }) == 0) std::abort();
}

void BenchOnCores(const std::string& where, int callerCore, int workerCore) {
  OurWorker ours(workerCore);
  const auto startThere = std::make_unique<Pinned>(workerCore);
  BareWorker bare;
  AsioWorker asio;
  const Pinned here(callerCore);
  for (const int callers : {1, 4}) {
    const std::string what = "synchronous push, " + std::to_string(callers) +
                             (callers == 1 ? " caller, " : " callers, ") + where;
    const auto pushOurs = [&] { PushFrom(callers, ours); };
    Compare({what, kBare, 1.1, kRounds, kPushes}, pushOurs, [&] { PushFrom(callers, bare); });
    Compare({what, kAsio, 1.0, kRounds, kPushes}, pushOurs, [&] { PushFrom(callers, asio); });
  }
  const auto postOurs = [&] { PostAndDrain(ours); };
  const std::string what = "asynchronous push and drain, " + where;
  Compare({what, kBare, 1.5, kRounds, kPosts}, postOurs, [&] { PostAndDrain(bare); });
  Compare({what, kAsio, 0, kRounds, kPosts}, postOurs, [&] { PostAndDrain(asio); });
}

}  // namespace

void BenchWorker() {
  BenchOnCores("one core", 0, 0);
  BenchOnCores("across cores", 0, 1);
}

}  // namespace bench
