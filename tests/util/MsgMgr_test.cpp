#include "util/MsgMgr.h"

#include <pthread.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "publicInc/ResultCode.h"
#include "support/Child.h"
#include "support/PlatformDouble.h"
#include "zel_platform/prax.h"

namespace commonutil {
namespace {

MsgMainThreadMgr& Worker() { return MsgMainThreadMgrHandler::GetInst(); }

int PushSync(std::function<int()> command) {
  return Worker().PushCmd(std::move(command), "int Caller()");
}
void PushAsync(std::function<void()> command) { Worker().PushCmd(std::move(command), "async"); }

// Ends when everything pushed before is done, what follows a command included.
void AwaitWorker() {
  EXPECT_EQ(PushSync([] { return 0; }), 0);
}

class MsgMgrTest : public ::testing::Test {
 protected:
  // On the worker, where nothing of an earlier command is still to come.
  MsgMgrTest() {
    (void)PushSync([] { return support::ResetPlatformDouble(), 0; });
  }
};

TEST_F(MsgMgrTest, RunsCommandsOnOneNamedThreadAndRefusesAnEmptyOne) {
  std::vector<std::thread::id> threads;
  char name[16] = {};
  for (int result = 42; result < 44; ++result) {
    EXPECT_EQ(PushSync([&] {
                threads.push_back(std::this_thread::get_id());
                (void)::pthread_getname_np(::pthread_self(), name, sizeof(name));
                return result;
              }),
              result);
  }
  EXPECT_STREQ(name, "zel_util");
  EXPECT_NE(threads[0], std::this_thread::get_id());
  EXPECT_EQ(threads[0], threads[1]);
  EXPECT_EQ(PushSync(nullptr), kPushNullCommand);
  EXPECT_EQ(PushSync([] { return PushSync(nullptr); }), kPushNullCommand);
  EXPECT_EQ(support::CountLog("PushCmd sync param null", 0), 2);
}

TEST_F(MsgMgrTest, CommandsRunInTheOrderPushedButASynchronousOneOfTheWorkerAtOnce) {
  std::vector<std::string> order;
  std::promise<void> gate;
  PushAsync([&] {
    gate.get_future().wait();
    PushAsync([&] { order.push_back("queued"); });
    const int inner = PushSync([&] {
      order.push_back("inner");
      return PushSync([] { return 5; });
    });
    order.push_back(inner == 5 ? "outer" : "lost");
  });
  PushAsync([&] { order.push_back("next"); });
  gate.set_value();
  AwaitWorker();
  AwaitWorker();  // the first may have been queued before "queued"
  EXPECT_EQ(order, (std::vector<std::string>{"inner", "outer", "next", "queued"}));
}

TEST_F(MsgMgrTest, ManyProducersNeverRunTwoCommandsAtOnce) {
  int plainCounter = 0;  // a second worker would be a data race
  std::vector<std::thread> producers;
  for (int producer = 0; producer < 4; ++producer) {
    producers.emplace_back([&plainCounter] {
      for (int i = 0; i < 250; ++i) {
        PushAsync([&plainCounter] { ++plainCounter; });
        EXPECT_GT(PushSync([&plainCounter] { return ++plainCounter; }), 0);
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(plainCounter, 2 * 4 * 250);
}

TEST_F(MsgMgrTest, TrackingCountsEachCommandButNoInlineRun) {
  PushAsync([] {});
  EXPECT_EQ(PushSync([] { return PushSync([] { return 1; }); }), 1);
  // These two and the one that began the test.
  EXPECT_EQ(PushSync([] { return support::CountTrack("Track_MsgDotCount"); }), 3);
  EXPECT_EQ(support::TrackCalls().at(0).numbers, std::vector<long long>{4});
}

TEST_F(MsgMgrTest, LogsACommandThatTookMoreThanThreeSeconds) {
  const auto setClock = [](unsigned long long ms) {
    PRAX_Ref_SetClock([ms] { return ms; });
    return 0;
  };
  for (const unsigned long long end : {13000, 13001, 5000}) {
    setClock(10000);
    EXPECT_EQ(PushSync([&] { return setClock(end); }), 0);
    AwaitWorker();
  }
  EXPECT_EQ(support::LogTexts(),
            std::vector<std::string>{"func:int Caller(), begin time: 10000, use time: 3001"});
  EXPECT_EQ(support::LogLines()[0].level, 1);
}

// The end of the worker, which is for good: each in a process of its own.

void AwaitEndOfThread(unsigned long tid) {
  while (std::filesystem::exists("/proc/self/task/" + std::to_string(tid))) {
    std::this_thread::yield();
  }
}

unsigned long WorkerTid() {
  unsigned long tid = 0;
  (void)PushSync([&] { return tid = PRAX_GetTID(), 0; });
  return tid;
}

bool Sleeps(unsigned long tid) {
  std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string text;
  return std::getline(file, text) && text.at(text.rfind(')') + 2) == 'S';
}

std::ptrdiff_t ThreadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

TEST(MsgMgrEndTest, StoppedWorkerDropsTheNextCommandAndBreaksItsPromise) {
  support::ExpectTrueInFreshProcess([] {
    const unsigned long tid = WorkerTid();
    while (!Sleeps(tid)) std::this_thread::yield();
    MsgMainThreadMgr::StopThread();
    bool ran = false;
    EXPECT_THROW((void)PushSync([&] { return ran = true, 0; }), std::future_error);
    AwaitEndOfThread(tid);
    return !ran;
  });
}

TEST(MsgMgrEndTest, WorkerStoppedInACommandFinishesItAndLeavesTheQueueAlone) {
  support::ExpectTrueInFreshProcess([] {
    const unsigned long tid = WorkerTid();
    const auto queued = std::make_shared<int>(0);
    std::promise<void> started;
    std::promise<void> gate;
    PushAsync([&] {
      started.set_value();
      gate.get_future().wait();
    });
    started.get_future().wait();
    for (int i = 0; i < 2; ++i) PushAsync([queued] { ++*queued; });
    MsgMainThreadMgr::StopThread();
    gate.set_value();
    AwaitEndOfThread(tid);
    PushAsync([queued] { ++*queued; });  // nobody is left to take it
    return *queued == 0 && queued.use_count() == 4;
  });
}

TEST(MsgMgrEndTest, StopStartsNoWorkerAndLetsNoneRunLater) {
  support::ExpectTrueInFreshProcess([] {
    std::thread([] {}).join();  // with the first one a sanitizer starts a thread of its own
    const std::ptrdiff_t threadsBefore = ThreadCount();
    MsgMainThreadMgr::StopThread();
    EXPECT_EQ(ThreadCount(), threadsBefore);
    bool ran = false;
    PushAsync([&ran] { ran = true; });
    while (ThreadCount() > threadsBefore) std::this_thread::yield();
    return !ran;
  });
}

TEST(MsgMgrEndTest, CommandThatThrowsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((void)PushSync([]() -> int { throw std::runtime_error("of a command"); }),
              ::testing::KilledBySignal(SIGABRT), "of a command");
}

}  // namespace
}  // namespace commonutil
