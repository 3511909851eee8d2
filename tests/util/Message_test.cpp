#include "util/Message.h"

#include <atomic>
#include <climits>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "support/Child.h"
#include "support/PlatformDouble.h"

namespace commonutil {
namespace {

CommonMessageQueue& Queue() { return CommonMessageQueue::getInst(); }

// A callback that runs what `user` points to.
using Work = std::function<int()>;
int RunWork(MessageObject*, void* user) { return (*static_cast<Work*>(user))(); }

void Post(Work* work, int logFlag = 0) {
  EXPECT_EQ(Queue().postMsg(nullptr, RunWork, work, logFlag), 0);
}

// Ends when the queue has run everything posted before, the lines after it included.
void AwaitQueue() {
  for (int turn = 0; turn < 2; ++turn) {
    std::promise<void> reached;
    Work work = [&] { return reached.set_value(), 0; };
    Post(&work);
    reached.get_future().wait();
  }
}

class MessageQueueTest : public ::testing::Test {
 protected:
  MessageQueueTest() { Reset(); }
  ~MessageQueueTest() override { Reset(); }

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
       {std::pair<const char*, int>{nullptr, 5}, {"", 0}, {"", INT_MIN}}) {
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
  EXPECT_EQ(BytesOf(*copy), BytesOf(message));
  EXPECT_NE(copy->Buffer(), message.Buffer());
  EXPECT_EQ(copy->First(), -7);
  EXPECT_EQ(copy->Second(), 0);
}

// What a callback was given.
struct Given {
  std::string text;
  std::vector<MessageObject*> messages;
  std::thread::id thread;
};

int OnMessage(MessageObject* message, void* user) {
  auto* given = static_cast<Given*>(user);
  given->text += message ? BytesOf(*static_cast<BuffMessageObject*>(message)) + " " : "(null) ";
  given->messages.push_back(message);
  given->thread = std::this_thread::get_id();
  return 1;
}
int OnTyped(int type, int id, MessageObject* message, void* user) {
  static_cast<Given*>(user)->text = std::to_string(type) + " " + std::to_string(id) + " ";
  return OnMessage(message, user) + 1;
}
int OnTwo(int type, int id, MessageObject* message, MessageObject* second, void* user) {
  return OnTyped(type, id, message, user) + OnMessage(second, user);
}

TEST_F(MessageQueueTest, PostsClonesAndSendsTheMessagesThemselvesInEachForm) {
  BuffMessageObject one(1, 1, "one", 3);
  BuffMessageObject two(2, 2, "second", 6);
  const struct {
    std::string text;
    std::vector<MessageObject*> messages;
  } expected[] = {{"one ", {&one}},
                  {"2147483647 -2147483648 one ", {&one}},
                  {"5 6 one second ", {&one, &two}},
                  {"7 8 (null) second ", {nullptr, &two}}};
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
    EXPECT_EQ(posted[i].text, expected[i].text);
    EXPECT_NE(posted[i].messages.back(), expected[i].messages.back()) << i;
    EXPECT_EQ(posted[i].thread, posted[0].thread) << i;
    EXPECT_EQ(sent[i].text, expected[i].text);
    EXPECT_EQ(sent[i].messages, expected[i].messages) << i;
    EXPECT_EQ(sent[i].thread, std::this_thread::get_id()) << i;
  }
  EXPECT_NE(posted[0].thread, std::this_thread::get_id());
  EXPECT_EQ(Queue().sendMsg(&one, nullptr, nullptr), -1);
  EXPECT_EQ(Queue().sendMsg(1, 2, &one, nullptr, nullptr), -1);
  EXPECT_EQ(Queue().sendMsg(1, 2, &one, &two, nullptr, nullptr), -1);
}

TEST_F(MessageQueueTest, LogsLengthAndDurationOnlyWithTheFlag) {
  static std::atomic<unsigned long long> now{1700000000000};  // read once more after the last
  PRAX_Ref_SetClock([] { return now.load(); });
  std::promise<void> gate;
  std::promise<void> end;
  Work wait = [&] { return gate.get_future().wait(), 0; };
  Work later = [&] { return now += 5, 0; };
  Work earlier = [&] { return now -= 3, 0; };
  Work last = [&] { return end.set_value(), 0; };
  Post(&wait);
  Post(&later, 1);
  Post(&later, 0);
  Post(&earlier, -1);
  EXPECT_EQ(Queue().postMsg(0, 0, nullptr, nullptr, nullptr), 0);  // always with the flag
  Post(&last);
  gate.set_value();
  end.get_future().wait();
  PRAX_Ref_SetClock({});
  const std::vector<std::string> lines = support::LogTexts();
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_EQ(lines[0], "----------------------------- queue size = 4 -----------------------------");
  EXPECT_EQ(lines[1], "=========================== proc time = 5 ms ===========================");
  EXPECT_EQ(support::CountLogPrefix("=========================== proc time = -3 ms ", 2), 1);
}

// `running` would be a data race if a sent callback ran beside a dispatched one.
TEST_F(MessageQueueTest, KeepsEachProducersOrderAndRunsNoTwoCallbacksAtOnce) {
  constexpr int kProducers = 3;
  constexpr int kEach = 300;
  struct Shared {
    int counts[kProducers + 1] = {};  // the last one of those that are sent
    int running = 0;
  } shared;
  const TypedMessageCallback run = [](int producer, int number, MessageObject*, void* user) {
    auto* to = static_cast<Shared*>(user);
    EXPECT_EQ(++to->running, 1);
    const int before = to->counts[producer]++;
    std::this_thread::yield();
    EXPECT_TRUE(producer == kProducers || before == number);
    return --to->running;
  };
  std::vector<std::thread> producers;
  for (int producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([&, producer] {
      for (int i = 0; i < kEach; ++i) {
        EXPECT_EQ(Queue().postMsg(producer, i, nullptr, run, &shared), 0);
        EXPECT_EQ(Queue().sendMsg(kProducers, i, nullptr, run, &shared), 0);
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  AwaitQueue();
  EXPECT_EQ(std::vector<int>(shared.counts, shared.counts + 4),
            (std::vector<int>{300, 300, 300, 900}));
}

TEST_F(MessageQueueTest, LetsACallbackSendPostAndThrow) {
  std::vector<std::string> order;
  Work last = [&] { return order.emplace_back("posted"), 0; };
  Work inner = [&] { return order.emplace_back("sent"), 9; };
  Work outer = [&] {
    Post(&last);
    EXPECT_EQ(Queue().sendMsg(nullptr, RunWork, &inner), 9);
    return order.emplace_back("outer"), 0;
  };
  Post(&outer);
  AwaitQueue();
  EXPECT_EQ(order, (std::vector<std::string>{"sent", "outer", "posted"}));

  Work faulty = []() -> int { throw std::runtime_error("of a callback"); };
  EXPECT_EQ(Queue().sendMsg(nullptr, RunWork, &faulty), -1);
  Post(&faulty);
  AwaitQueue();  // neither the thread nor the lock is lost
}

// Its clones tell when they end; without such a function there are none.
class WatchedMessage : public MessageObject {
 public:
  explicit WatchedMessage(Work onEnd, bool isClone = false) : m_onEnd(onEnd), m_isClone(isClone) {}
  WatchedMessage* clone() const override {
    return m_onEnd ? new WatchedMessage(m_onEnd, true) : nullptr;
  }
  ~WatchedMessage() override {
    if (m_isClone) m_onEnd();
  }

 private:
  const Work m_onEnd;
  const bool m_isClone;
};

// A message that in its destructor waits for another thread must not hold that thread up.
TEST_F(MessageQueueTest, DeletesTheMessageOnceOthersMaySend) {
  std::atomic<int> ends{0};
  Work count = [&] { return ++ends; };
  const WatchedMessage message([&] {
    std::thread([&] { EXPECT_GT(Queue().sendMsg(nullptr, RunWork, &count), 0); }).join();
    return 0;
  });
  const WatchedMessage withoutMemory({});
  std::vector<bool> clones;
  const MessageCallback onMessage = [](MessageObject* clone, void* user) {
    static_cast<std::vector<bool>*>(user)->push_back(clone != nullptr);
    return 0;
  };
  EXPECT_EQ(Queue().postMsg(&message, onMessage, &clones, 0), 0);
  EXPECT_EQ(Queue().postMsg(1, 2, &message, &message, nullptr, nullptr), 0);
  EXPECT_EQ(Queue().postMsg(&withoutMemory, onMessage, &clones, 0), 0);
  AwaitQueue();
  EXPECT_EQ(ends, 3);
  EXPECT_EQ(clones, (std::vector<bool>{true, false}));
}

// The start happens once in a process, so each of these has one of its own.
TEST(MessageQueueStartTest, TellsHowTheThreadStarted) {
  support::ExpectTrueInFreshProcess([] {
    AwaitQueue();
    return support::LogLines().size() == 2 &&
           support::CountLog("PRAX_PthreadCreate ret = 0", 2) == 1 &&
           support::CountLogPrefix("msgqueueDispathThread start.", 2) == 1;
  });
  support::ExpectTrueInFreshProcess([] {
    PRAX_Ref_FailNext(PRAX_REF_THREAD_CREATE, 1, 11);
    Work work = [] { return 7; };
    Post(&work);
    EXPECT_EQ(Queue().sendMsg(nullptr, RunWork, &work), 7);
    return support::CountLog("PRAX_PthreadCreate ret = 11", 2) == 1;
  });
}

}  // namespace
}  // namespace commonutil
