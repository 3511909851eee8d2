// The message queue against a bare queue: a mutex, a semaphore, the same clones.
#include <semaphore.h>

#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "Ratio.h"
#include "util/Message.h"

namespace bench {

namespace {

using commonutil::BuffMessageObject;
using commonutil::CommonMessageQueue;
using commonutil::MessageCallback;
using commonutil::MessageObject;

constexpr int kRounds = 15;
constexpr int kMessages = 20000;
constexpr char kBytes[64] = {};

// Its thread never ends, as the one of the queue that it is measured against.
class BareQueue {
 public:
  BareQueue() {
    (void)::sem_init(&m_queued, 0, 0);
    std::thread([this] { Run(); }).detach();
  }

  void Post(const MessageObject& message, MessageCallback callback, void* user) {
    Node node{std::unique_ptr<MessageObject>(message.clone()), callback, user};
    {
      const std::lock_guard<std::mutex> hold(m_lock);
      m_nodes.push_front(std::move(node));
    }
    (void)::sem_post(&m_queued);
  }

 private:
  struct Node {
    std::unique_ptr<MessageObject> message;
    MessageCallback callback;
    void* user;
  };

  Node Take() {
    while (::sem_wait(&m_queued) != 0) {  // interrupted
    }
    const std::lock_guard<std::mutex> hold(m_lock);
    Node node = std::move(m_nodes.back());
    m_nodes.pop_back();
    return node;
  }

  [[noreturn]] void Run() {
    for (;;) {
      const Node node = Take();
      (void)node.callback(node.message.get(), node.user);
    }
  }

  std::mutex m_lock;
  std::deque<Node> m_nodes;  // guarded by m_lock
  sem_t m_queued;
};

// Counts callbacks down and wakes who waits for the last.
class Countdown {
 public:
  explicit Countdown(int count) : m_left(count) { (void)::sem_init(&m_done, 0, 0); }
  ~Countdown() { (void)::sem_destroy(&m_done); }
  Countdown(const Countdown&) = delete;
  Countdown& operator=(const Countdown&) = delete;

  static int OnMessage(MessageObject* /*message*/, void* user) {
    auto* const self = static_cast<Countdown*>(user);
    if (--self->m_left == 0) (void)::sem_post(&self->m_done);
    return 0;
  }
  void Await() {
    while (::sem_wait(&m_done) != 0) {  // interrupted
    }
  }

 private:
  int m_left;  // of the dispatching thread
  sem_t m_done;
};

// Posts `burst` messages and waits for the last, until kMessages are through.
template <class Post>
void Through(int burst, Post post) {
  for (int posted = 0; posted < kMessages; posted += burst) {
    Countdown countdown(burst);
    for (int i = 0; i < burst; ++i) post(&countdown);
    countdown.Await();
  }
}

void BenchBursts(const char* what, BareQueue& bare, int burst) {
  const BuffMessageObject message(1, 2, kBytes, sizeof(kBytes));
  Compare(
      {what, "mutex, semaphore and deque", 1.5, kRounds, kMessages},
      [&] {
        Through(burst, [&](Countdown* countdown) {
          (void)CommonMessageQueue::getInst().postMsg(&message, Countdown::OnMessage, countdown, 0);
        });
      },
      [&] {
        Through(burst,
                [&](Countdown* countdown) { bare.Post(message, Countdown::OnMessage, countdown); });
      });
}

}  // namespace

void BenchQueue() {
  auto& bare = *new BareQueue;  // as long as its thread
  BenchBursts("message queue: post to dispatch, one by one", bare, 1);
  BenchBursts("message queue: post to dispatch, in bursts", bare, 2000);
}

}  // namespace bench
