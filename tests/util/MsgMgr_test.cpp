#include "util/MsgMgr.h"

#include <pthread.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "publicInc/ResultCode.h"
#include "support/PlatformDouble.h"
#include "zel_platform/prax.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZEL_TEST_OWN_NEW 0  // the sanitizers bring an operator new
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZEL_TEST_OWN_NEW 0
#endif
#endif
#ifndef ZEL_TEST_OWN_NEW
#define ZEL_TEST_OWN_NEW 1
#endif

#if ZEL_TEST_OWN_NEW
namespace {

// After how many further allocations of this thread one fails; negative: none does.
thread_local int t_allocationsLeft = -1;

}  // namespace

// The only way to make a command's allocation fail.
__attribute__((noinline)) void* operator new(std::size_t size) {
  if (t_allocationsLeft >= 0 && t_allocationsLeft-- == 0) throw std::bad_alloc();
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
#endif

namespace commonutil {
namespace {

constexpr int kErrorLevel = 0;
constexpr int kWarningLevel = 1;
constexpr unsigned long long kBeginMs = 1700000000000;

using SyncCommand = std::function<int()>;
using AsyncCommand = std::function<void()>;

void SetClock(unsigned long long ms) {
  PRAX_Ref_SetClock([ms] { return ms; });
}

MsgMainThreadMgr& Worker() { return MsgMainThreadMgrHandler::GetInst(); }

int PushSync(SyncCommand command) { return Worker().PushCmd(std::move(command), "sync"); }
void PushAsync(AsyncCommand command) { Worker().PushCmd(std::move(command), "async"); }

// Ends when everything pushed before is done, what follows a command included.
void AwaitWorker() {
  EXPECT_EQ(PushSync([] { return 0; }), 0);
}

// On the worker, where nothing of an earlier command is still to come.
void ResetOnWorker() {
  (void)PushSync([] { return support::ResetPlatformDouble(), 0; });
}

class MsgMgrTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetOnWorker(); }
  void TearDown() override { ResetOnWorker(); }
};

TEST_F(MsgMgrTest, RunsCommandsOnOneNamedThreadAndRefusesAnEmptyOne) {
  unsigned long first = 0;
  char name[16] = {};
  EXPECT_EQ(PushSync([&] {
              first = PRAX_GetTID();
              return ::pthread_getname_np(::pthread_self(), name, sizeof(name));
            }),
            0);
  EXPECT_STREQ(name, "zel_util");
  EXPECT_NE(first, PRAX_GetTID());
  EXPECT_EQ(PushSync([&] { return PRAX_GetTID() == first ? 42 : -42; }), 42);

  EXPECT_EQ(PushSync(SyncCommand()), kPushNullCommand);
  EXPECT_EQ(PushSync([] { return PushSync(SyncCommand()); }), kPushNullCommand);
  EXPECT_EQ(support::CountLog("PushCmd sync param null", kErrorLevel), 2);
}

#if ZEL_TEST_OWN_NEW
TEST_F(MsgMgrTest, WithoutMemoryNothingIsQueued) {
  const std::string name(100, 'n');
  int runs = 0;
  int refusals = 0;
  int result = kPushNoMemory;
  while (result == kPushNoMemory) {  // another of its allocations fails each time
    SyncCommand command = [&runs] { return ++runs; };
    t_allocationsLeft = refusals;
    result = Worker().PushCmd(std::move(command), name);
    t_allocationsLeft = -1;
    if (result == kPushNoMemory) ++refusals;
  }
  EXPECT_EQ(result, 1);
  EXPECT_GE(refusals, 2);
  EXPECT_EQ(support::CountLog("pThreadExec new failed!", kWarningLevel), refusals);
}

// The worker drops commands as it stops; without memory for the exception the process ended.
TEST(ThreadExecTest, ACommandIsDroppedWithoutMemory) {
  auto command = std::make_unique<ThreadExec>([] { return 0; }, "", std::promise<std::int32_t>());
  const std::shared_future<std::int32_t> result = command->Result();
  t_allocationsLeft = 0;
  command.reset();
  t_allocationsLeft = -1;
  EXPECT_THROW((void)result.get(), std::future_error);
}
#endif

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
  constexpr int kProducers = 4;
  constexpr int kEach = 250;
  int plainCounter = 0;  // a second worker would be a data race
  std::vector<std::thread> producers;
  for (int producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([&plainCounter] {
      for (int i = 0; i < kEach; ++i) {
        PushAsync([&plainCounter] { ++plainCounter; });
        EXPECT_GT(PushSync([&plainCounter] { return ++plainCounter; }), 0);
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  AwaitWorker();
  EXPECT_EQ(plainCounter, 2 * kProducers * kEach);
}

TEST_F(MsgMgrTest, TrackingCountsEachCommandButNoInlineRun) {
  const auto counted = [] {
    return PushSync([] { return support::CountTrack("Track_MsgDotCount"); });
  };
  const int before = counted();
  PushAsync([] {});
  EXPECT_EQ(PushSync([] { return PushSync([] { return 1; }); }), 1);
  EXPECT_EQ(counted(), before + 3);  // with the one that asked before
  EXPECT_EQ(support::TrackCalls().at(0).numbers, std::vector<long long>{4});
}

TEST_F(MsgMgrTest, LogsACommandThatTookMoreThanThreeSeconds) {
  for (const long long took : {3000, 3001, -5000}) {
    support::ClearLog();
    SetClock(kBeginMs);
    const SyncCommand command = [took] {
      SetClock(kBeginMs + static_cast<unsigned long long>(took));
      return 0;
    };
    EXPECT_EQ(Worker().PushCmd(command, "int Caller(const void *)"), 0);
    EXPECT_EQ(PushSync([] { return support::CountLogPrefix("func:"); }), took == 3001 ? 1 : 0);
    if (took != 3001) continue;
    EXPECT_EQ(support::CountLog("func:int Caller(const void *), begin time: 1700000000000, "
                                "use time: 3001",
                                kWarningLevel),
              1);
  }
}

// The end of the worker, which is for good: each in a process of its own.

// A thread's state, '?' when it is gone.
char StateOfThread(unsigned long tid) {
  std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string text;
  return std::getline(file, text) ? text.at(text.rfind(')') + 2) : '?';
}

void AwaitState(unsigned long tid, char state) {
  while (StateOfThread(tid) != state) std::this_thread::yield();
}

unsigned long WorkerTid() {
  unsigned long tid = 0;
  (void)PushSync([&] { return tid = PRAX_GetTID(), 0; });
  return tid;
}

std::ptrdiff_t ThreadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

class MsgMgrEndTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(MsgMgrEndTest, StoppedWorkerDropsTheNextCommandAndBreaksItsPromise) {
  const auto body = [] {
    const unsigned long tid = WorkerTid();
    AwaitState(tid, 'S');
    MsgMainThreadMgr::StopThread();
    bool ran = false;
    bool broken = false;
    try {
      (void)PushSync([&] { return ran = true, 0; });
    } catch (const std::future_error& error) {
      broken = error.code() == std::future_errc::broken_promise;
    }
    AwaitState(tid, '?');
    std::exit(broken && !ran ? 0 : 1);
  };
  EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(MsgMgrEndTest, WorkerStoppedInACommandFinishesItAndLeavesTheQueueAlone) {
  const auto body = [] {
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
    AwaitState(tid, '?');
    PushAsync([queued] { ++*queued; });  // nobody is left to take it
    std::exit(*queued == 0 && queued.use_count() == 4 ? 0 : 1);
  };
  EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(MsgMgrEndTest, StopStartsNoWorkerAndLetsNoneRunLater) {
  const auto body = [] {
    std::thread([] {}).join();  // with the first one a sanitizer starts a thread of its own
    const std::ptrdiff_t threadsBefore = ThreadCount();
    MsgMainThreadMgr::StopThread();
    if (ThreadCount() > threadsBefore) std::exit(1);
    bool ran = false;
    PushAsync([&ran] { ran = true; });
    while (ThreadCount() > threadsBefore) std::this_thread::yield();
    std::exit(ran ? 2 : 0);
  };
  EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(MsgMgrEndTest, CommandThatThrowsEndsTheProcess) {
  EXPECT_EXIT((void)PushSync([]() -> int { throw std::runtime_error("of a command"); }),
              ::testing::KilledBySignal(SIGABRT), "of a command");
}

}  // namespace
}  // namespace commonutil
