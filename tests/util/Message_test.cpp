#include "util/Message.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "support/PlatformDouble.h"
#include "zel_platform/prax.h"

namespace commonutil {
namespace {

constexpr int kInfoLevel = 2;
constexpr std::chrono::seconds kDeadline{60};

CommonMessageQueue& Queue() { return CommonMessageQueue::getInst(); }

// A callback that runs what `user` points to.
using Work = std::function<int(MessageObject*)>;
int RunWork(MessageObject* message, void* user) { return (*static_cast<Work*>(user))(message); }

// Ends when the queue has run everything posted before, the lines after it included.
void AwaitQueue() {
  for (int turn = 0; turn < 2; ++turn) {
    std::promise<void> reached;
    Work work = [&](MessageObject*) {
      reached.set_value();
      return 0;
    };
    ASSERT_EQ(Queue().postMsg(nullptr, RunWork, &work, 0), 0);
    ASSERT_EQ(reached.get_future().wait_for(kDeadline), std::future_status::ready);
  }
}

class MessageQueueTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }

 private:
  static void Reset() {
    AwaitQueue();
    support::ResetPlatformDouble();
  }
};

std::string BytesOf(const BuffMessageObject& message) {
  return {static_cast<const char*>(message.Buffer()), static_cast<std::size_t>(message.Length())};
}

TEST(BuffMessageObjectTest, OwnsItsBytesAndCopiesTheFirstIntegerOnly) {
  for (const auto& [data, length] :
       {std::pair<const char*, int>{nullptr, 5}, {"", 0}, {"", -1}, {"", INT_MIN}}) {
    const BuffMessageObject empty(3, 4, data, length);
    const std::unique_ptr<BuffMessageObject> copy(empty.clone());
    EXPECT_EQ(empty.Buffer(), nullptr) << length;
    EXPECT_EQ(empty.Length() + copy->Length(), 0) << length;
  }
  char data[] = {'a', '\0', 'b'};
  const BuffMessageObject message(-7, 8, data, 3);
  const std::unique_ptr<BuffMessageObject> copy(message.clone());
  data[0] = 'x';
  EXPECT_EQ(BytesOf(message), std::string("a\0b", 3));
  EXPECT_EQ(BytesOf(*copy), std::string("a\0b", 3));
  EXPECT_NE(copy->Buffer(), message.Buffer());
  EXPECT_EQ(copy->First(), -7);
  EXPECT_EQ(copy->Second(), 0);
}

// What a callback was given.
struct Given {
  std::vector<int> numbers;
  std::vector<MessageObject*> messages;
  std::vector<std::string> texts;
  std::thread::id thread;
};

void Note(MessageObject* message, Given* given) {
  given->messages.push_back(message);
  const auto* bytes = static_cast<BuffMessageObject*>(message);
  given->texts.push_back(bytes ? BytesOf(*bytes) : "(null)");
}

int OnMessage(MessageObject* message, void* user) {
  auto* given = static_cast<Given*>(user);
  given->thread = std::this_thread::get_id();
  Note(message, given);
  return 1;
}

int OnTyped(int type, int id, MessageObject* message, void* user) {
  static_cast<Given*>(user)->numbers = {type, id};
  return OnMessage(message, user) + 1;
}

int OnTwo(int type, int id, MessageObject* message, MessageObject* second, void* user) {
  const int result = OnTyped(type, id, message, user) + 1;
  Note(second, static_cast<Given*>(user));
  return result;
}

TEST_F(MessageQueueTest, PostsClonesAndSendsTheMessagesThemselvesInEachForm) {
  BuffMessageObject one(1, 1, "one", 3);
  BuffMessageObject two(2, 2, "second", 6);
  const struct {
    std::vector<int> numbers;
    std::vector<std::string> texts;
    std::vector<MessageObject*> messages;
  } expected[] = {{{}, {"one"}, {&one}},
                  {{INT_MAX, INT_MIN}, {"one"}, {&one}},
                  {{5, 6}, {"one", "second"}, {&one, &two}},
                  {{7, 8}, {"(null)", "second"}, {nullptr, &two}}};
  Given posted[4];
  EXPECT_EQ(Queue().postMsg(&one, OnMessage, &posted[0], 0), 0);
  EXPECT_EQ(Queue().postMsg(INT_MAX, INT_MIN, &one, OnTyped, &posted[1]), 0);
  EXPECT_EQ(Queue().postMsg(5, 6, &one, &two, OnTwo, &posted[2]), 0);
  EXPECT_EQ(Queue().postMsg(7, 8, nullptr, &two, OnTwo, &posted[3]), 0);
  Given sent[4];
  EXPECT_EQ(Queue().sendMsg(&one, OnMessage, &sent[0]), 1);
  EXPECT_EQ(Queue().sendMsg(INT_MAX, INT_MIN, &one, OnTyped, &sent[1]), 2);
  EXPECT_EQ(Queue().sendMsg(5, 6, &one, &two, OnTwo, &sent[2]), 3);
  EXPECT_EQ(Queue().sendMsg(7, 8, nullptr, &two, OnTwo, &sent[3]), 3);
  AwaitQueue();
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(posted[i].numbers, expected[i].numbers) << i;
    EXPECT_EQ(posted[i].texts, expected[i].texts) << i;
    EXPECT_NE(posted[i].messages.back(), expected[i].messages.back()) << i;
    EXPECT_EQ(posted[i].thread, posted[0].thread) << i;
    EXPECT_EQ(sent[i].numbers, expected[i].numbers) << i;
    EXPECT_EQ(sent[i].messages, expected[i].messages) << i;
    EXPECT_EQ(sent[i].thread, std::this_thread::get_id()) << i;
  }
  EXPECT_NE(posted[0].thread, std::this_thread::get_id());
  EXPECT_EQ(Queue().sendMsg(&one, nullptr, nullptr), -1);
  EXPECT_EQ(Queue().sendMsg(1, 2, &one, nullptr, nullptr), -1);
  EXPECT_EQ(Queue().sendMsg(1, 2, &one, &two, nullptr, nullptr), -1);
}

TEST_F(MessageQueueTest, LogsLengthAndDurationOnlyWithTheFlag) {
  constexpr unsigned long long kBeginMs = 1700000000000;
  std::atomic<unsigned long long> now{kBeginMs};
  PRAX_Ref_SetClock([&] { return now.load(); });
  std::promise<void> gate;
  std::promise<void> end;
  Work wait = [&](MessageObject*) { return gate.get_future().wait(), 0; };
  Work later = [&](MessageObject*) { return now += 5, 0; };
  Work earlier = [&](MessageObject*) { return now -= 3, 0; };
  Work last = [&](MessageObject*) { return end.set_value(), 0; };
  ASSERT_EQ(Queue().postMsg(nullptr, RunWork, &wait, 0), 0);
  ASSERT_EQ(Queue().postMsg(nullptr, RunWork, &later, 1), 0);
  ASSERT_EQ(Queue().postMsg(nullptr, RunWork, &earlier, -1), 0);
  ASSERT_EQ(Queue().postMsg(nullptr, RunWork, &later, 0), 0);
  ASSERT_EQ(Queue().postMsg(0, 0, nullptr, nullptr, nullptr), 0);  // always with the flag
  ASSERT_EQ(Queue().postMsg(nullptr, RunWork, &last, 0), 0);
  gate.set_value();
  ASSERT_EQ(end.get_future().wait_for(kDeadline), std::future_status::ready);
  PRAX_Ref_SetClock({});
  EXPECT_EQ(support::LogTexts(),
            (std::vector<std::string>{
                "----------------------------- queue size = 4 -----------------------------",
                "=========================== proc time = 5 ms ===========================",
                "----------------------------- queue size = 3 -----------------------------",
                "=========================== proc time = -3 ms ===========================",
                "----------------------------- queue size = 1 -----------------------------",
                "=========================== proc time = 0 ms ==========================="}));
  EXPECT_EQ(support::LogLines().front().level, kInfoLevel);
  EXPECT_EQ(support::LogLines().front().file, "commonutil/util/Message");
}

// `running` would be a data race if a sent callback ran beside a dispatched one.
TEST_F(MessageQueueTest, KeepsEachProducersOrderAndRunsNoTwoCallbacksAtOnce) {
  constexpr int kProducers = 3;
  constexpr int kEach = 300;
  struct Shared {
    std::vector<int> seen[kProducers];
    int sent = 0;
    int running = 0;
  } shared;
  const TypedMessageCallback onPosted = [](int producer, int number, MessageObject*, void* user) {
    auto* to = static_cast<Shared*>(user);
    EXPECT_EQ(++to->running, 1);
    to->seen[producer].push_back(number);
    return --to->running;
  };
  const MessageCallback onSent = [](MessageObject*, void* user) {
    auto* to = static_cast<Shared*>(user);
    EXPECT_EQ(++to->running, 1);
    return ++to->sent, --to->running;
  };
  std::vector<std::thread> producers;
  for (int producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([&, producer] {
      for (int i = 0; i < kEach; ++i) {
        const BuffMessageObject message(i, 0, &i, sizeof(i));
        EXPECT_EQ(Queue().postMsg(producer, i, &message, onPosted, &shared), 0);
        EXPECT_EQ(Queue().sendMsg(nullptr, onSent, &shared), 0);
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  AwaitQueue();
  EXPECT_EQ(shared.sent, kProducers * kEach);
  for (const std::vector<int>& seen : shared.seen) {
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kEach));
    for (int i = 0; i < kEach; ++i) EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
  }
}

TEST_F(MessageQueueTest, LetsACallbackSendPostAndThrow) {
  std::vector<std::string> order;
  Work last = [&](MessageObject*) { return order.emplace_back("posted"), 0; };
  Work inner = [&](MessageObject*) { return order.emplace_back("sent"), 9; };
  Work outer = [&](MessageObject*) {
    EXPECT_EQ(Queue().postMsg(nullptr, RunWork, &last, 0), 0);
    EXPECT_EQ(Queue().sendMsg(nullptr, RunWork, &inner), 9);
    return order.emplace_back("outer"), 0;
  };
  ASSERT_EQ(Queue().postMsg(nullptr, RunWork, &outer, 0), 0);
  AwaitQueue();
  AwaitQueue();
  EXPECT_EQ(order, (std::vector<std::string>{"sent", "outer", "posted"}));

  Work faulty = [](MessageObject*) -> int { throw std::runtime_error("of a callback"); };
  EXPECT_EQ(Queue().sendMsg(nullptr, RunWork, &faulty), -1);
  ASSERT_EQ(Queue().postMsg(nullptr, RunWork, &faulty, 0), 0);
  AwaitQueue();  // neither the thread nor the lock is lost
}

// Its clones tell when they end; a copy is refused on request.
class WatchedMessage : public MessageObject {
 public:
  explicit WatchedMessage(std::function<void()> onEnd) : m_onEnd(std::move(onEnd)) {}
  WatchedMessage* clone() const override {
    return m_onEnd ? new WatchedMessage(*this, m_onEnd) : nullptr;
  }
  ~WatchedMessage() override {
    if (m_isClone) m_onEnd();
  }

 private:
  WatchedMessage(const WatchedMessage& other, const std::function<void()>& onEnd)
      : MessageObject(other), m_onEnd(onEnd), m_isClone(true) {}

  const std::function<void()> m_onEnd;
  const bool m_isClone = false;
};

// A message that in its destructor waits for another thread must not hold that thread up.
TEST_F(MessageQueueTest, DeletesTheMessageOnceOthersMaySend) {
  std::atomic<int> ends{0};
  const WatchedMessage message([&] {
    auto sent = std::async(std::launch::async, [] {
      return Queue().sendMsg(
          nullptr, [](MessageObject*, void*) { return 4; }, nullptr);
    });
    if (sent.wait_for(kDeadline) == std::future_status::ready) ends += sent.get();
  });
  Given given;
  const MessageCallback onNull = [](MessageObject* clone, void* user) {
    static_cast<Given*>(user)->messages.push_back(clone);
    return 0;
  };
  ASSERT_EQ(Queue().postMsg(&message, onNull, &given, 0), 0);
  ASSERT_EQ(Queue().postMsg(1, 2, &message, &message, nullptr, nullptr), 0);
  const WatchedMessage withoutMemory({});
  ASSERT_EQ(Queue().postMsg(&withoutMemory, onNull, &given, 0), 0);
  AwaitQueue();
  EXPECT_EQ(ends, 3 * 4);
  ASSERT_EQ(given.messages.size(), 2U);
  EXPECT_NE(given.messages[0], nullptr);
  EXPECT_EQ(given.messages[1], nullptr);
}

// The start happens once in a process, so each of these has one of its own.
TEST(MessageQueueStartTest, TellsHowTheThreadStarted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto start = [] {
    AwaitQueue();
    EXPECT_EQ(support::LogLines().size(), 2U);
    EXPECT_EQ(support::CountLog("PRAX_PthreadCreate ret = 0", kInfoLevel), 1);
    EXPECT_EQ(support::CountLogPrefix("msgqueueDispathThread start.", kInfoLevel), 1);
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  };
  const auto startWithoutAThread = [] {
    PRAX_Ref_FailNext(PRAX_REF_THREAD_CREATE, 1, 11);
    Given given;
    BuffMessageObject message(1, 2, "x", 1);
    EXPECT_EQ(Queue().postMsg(&message, OnMessage, &given, 1), 0);
    EXPECT_EQ(Queue().sendMsg(&message, OnMessage, &given), 1);
    EXPECT_EQ(given.texts.size(), 1U);
    EXPECT_EQ(support::CountLog("PRAX_PthreadCreate ret = 11", kInfoLevel), 1);
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(start(), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(startWithoutAThread(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace commonutil
