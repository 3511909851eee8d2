// The message ring against a lock-free single-producer queue with the same copy, wipe and free.
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include <readerwriterqueue/readerwriterqueue.h>

#include "Ratio.h"
#include "publicInc/msg_storage.h"
#include "zel_platform/securec.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr int kMessages = 200000;
constexpr std::size_t kBytes = 200;

void WipeAndFree(char* message) {
  const std::size_t length = std::strlen(message);
  (void)memset_s(message, length, 0, length);
  delete[] message;
}

void ThroughRing(msg_storage& storage, const std::string& text) {
  std::thread producer([&] {
    for (int i = 0; i < kMessages;) i += storage.RecvMsgImport(text.data(), text.size());
  });
  char* message = nullptr;
  for (int taken = 0; taken < kMessages;) {
    if (storage.RecvMsgExport(&message) == 0) continue;
    WipeAndFree(message);
    ++taken;
  }
  producer.join();
}

void ThroughPeer(moodycamel::ReaderWriterQueue<char*>& queue, const std::string& text) {
  std::thread producer([&] {
    for (int i = 0; i < kMessages;) {
      std::unique_ptr<char[]> copy(new char[text.size() + 1]);
      std::memcpy(copy.get(), text.data(), text.size());
      copy[text.size()] = '\0';
      if (!queue.try_enqueue(copy.get())) continue;
      (void)copy.release();
      ++i;
    }
  });
  char* message = nullptr;
  for (int taken = 0; taken < kMessages;) {
    if (!queue.try_dequeue(message)) continue;
    WipeAndFree(message);
    ++taken;
  }
  producer.join();
}

}  // namespace

void BenchRing() {
  const std::string text(kBytes, 'm');
  const auto storage = std::make_unique<msg_storage>();
  moodycamel::ReaderWriterQueue<char*> queue(2048);
  Compare(
      {"ring: store, take, wipe, free; two threads", "moodycamel::ReaderWriterQueue", 1.2, kRounds,
       kMessages},
      [&] { ThroughRing(*storage, text); }, [&] { ThroughPeer(queue, text); });
}

}  // namespace bench
