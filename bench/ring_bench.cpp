// The message ring against a lock-free single-producer queue with the same copy, wipe and free.

#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <readerwriterqueue/readerwriterqueue.h>

#include "Ratio.h"
#include "publicInc/msg_storage.h"
#include "zel_platform/securec.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr int kMessages = 50000;
constexpr std::size_t kBytes = 200;

void WipeAndFree(char* message) {
  const std::size_t length = std::strlen(message);
  (void)memset_s(message, length, 0, length);
  delete[] message;
}

// One producing thread for both sides: each thread allocates from an arena of its own, and which
// arena a new thread gets decides more than the queue does.
class Producer {
 public:
  Producer() : m_thread([this] { Run(); }) {}
  ~Producer() {
    Start({});
    m_thread.join();
  }

  // Runs `work` on the thread; the previous work has ended.
  void Start(std::function<void()> work) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_work = std::move(work);
    m_asked = true;
    m_wake.notify_one();
  }

 private:
  void Run() {
    for (;;) {
      std::function<void()> work;
      {
        std::unique_lock<std::mutex> hold(m_lock);
        m_wake.wait(hold, [this] { return m_asked; });
        m_asked = false;
        work.swap(m_work);
      }
      if (!work) return;
      work();
    }
  }

  std::mutex m_lock;
  std::condition_variable m_wake;
  std::function<void()> m_work;
  bool m_asked = false;
  std::thread m_thread;  // last: it uses the others
};

// Called where nothing can be done but wait: on one core the other thread has to come to it.
void Pause(bool oneCore) {
  if (oneCore) std::this_thread::yield();
}

void ThroughRing(Producer& producer, msg_storage& storage, const std::string& text, bool oneCore) {
  producer.Start([&, oneCore] {
    for (int i = 0; i < kMessages;) {
      if (storage.RecvMsgImport(text.data(), text.size()) == 1) {
        ++i;
      } else {
        Pause(oneCore);
      }
    }
  });
  char* message = nullptr;
  for (int taken = 0; taken < kMessages;) {
    if (storage.RecvMsgExport(&message) == 0) {
      Pause(oneCore);
      continue;
    }
    storage.ReleaseRequest(message);
    ++taken;
  }
}

void ThroughPeer(Producer& producer, moodycamel::ReaderWriterQueue<char*>& queue,
                 const std::string& text, bool oneCore) {
  producer.Start([&, oneCore] {
    for (int i = 0; i < kMessages;) {
      std::unique_ptr<char[]> copy(new char[text.size() + 1]);
      std::memcpy(copy.get(), text.data(), text.size());
      copy[text.size()] = '\0';
      if (!queue.try_enqueue(copy.get())) {
        Pause(oneCore);
        continue;
      }
      (void)copy.release();
      ++i;
    }
  });
  char* message = nullptr;
  for (int taken = 0; taken < kMessages;) {
    if (!queue.try_dequeue(message)) {
      Pause(oneCore);
      continue;
    }
    WipeAndFree(message);
    ++taken;
  }
}

void BenchOnCores(const char* what, int producingCore) {
  const std::string text(kBytes, 'm');
  const auto there = std::make_unique<Pinned>(producingCore);  // the producer's thread takes it
  Producer producer;
  const Pinned here(0);
  const bool oneCore = producingCore == 0;
  const auto storage = std::make_unique<msg_storage>();
  moodycamel::ReaderWriterQueue<char*> queue(2048);
  Compare(
      {what, "moodycamel::ReaderWriterQueue, copy, wipe, free", 1.0, kRounds, kMessages},
      [&] { ThroughRing(producer, *storage, text, oneCore); },
      [&] { ThroughPeer(producer, queue, text, oneCore); });
}

}  // namespace

void BenchRing() {
  if (std::thread::hardware_concurrency() > 1)
    BenchOnCores("ring: store, take, wipe, free; a core each", 1);
  BenchOnCores("ring: store, take, wipe, free; one core", 0);
}

}  // namespace bench
