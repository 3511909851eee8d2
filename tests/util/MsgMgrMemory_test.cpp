// The worker's commands, and the exported functions, where an allocation fails.
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>

#include <gtest/gtest.h>

#include "CommonUtil.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "publicInc/ResultCode.h"
#include "support/Child.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/MsgMgr.h"
#include "util/Statistics.h"

namespace {

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

// After how many further allocations of this thread one fails; negative: none does.
thread_local int t_allocationsLeft = -1;
// Larger ones of this thread fail.
thread_local std::size_t t_largestAllocation = kNoLimit;

}  // namespace

__attribute__((noinline)) void* operator new(std::size_t size) {
  if (t_allocationsLeft >= 0 && t_allocationsLeft-- == 0) throw std::bad_alloc();
  if (size > t_largestAllocation) throw std::bad_alloc();
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace commonutil {
namespace {

TEST(MsgMgrMemoryTest, WithoutMemoryNothingIsQueued) {
  support::ClearLog();
  MsgMainThreadMgr& worker = MsgMainThreadMgrHandler::GetInst();  // starts with memory
  const std::string name(100, 'n');
  int runs = 0;
  int refusals = -1;
  int result = kPushNoMemory;
  for (; result == kPushNoMemory; ++refusals) {  // another of its allocations fails each time
    std::function<int()> command = [&runs] { return ++runs; };
    t_allocationsLeft = refusals + 1;
    result = worker.PushCmd(std::move(command), name);
    t_allocationsLeft = -1;
  }
  EXPECT_EQ(result, 1);
  EXPECT_GE(refusals, 2);
  EXPECT_EQ(support::CountLog("pThreadExec new failed!", 1), refusals);
}

// The list grows now and then; a command that is refused then was counted all the same.
TEST(MsgMgrMemoryTest, ACommandThatIsNotQueuedIsNotCounted) {
  const std::uint64_t before = Statistics::Read(Counter::kCommandsPushed);
  MsgMainThreadMgr& worker = MsgMainThreadMgrHandler::GetInst();
  std::promise<void> gate;
  worker.PushCmd(std::function<void()>([&] { gate.get_future().wait(); }), "");
  std::uint64_t queued = 1;
  t_largestAllocation = 500;
  EXPECT_THROW(for (; queued < 1000; ++queued) worker.PushCmd(std::function<void()>([] {}), ""),
               std::bad_alloc);
  t_largestAllocation = kNoLimit;
  EXPECT_EQ(Statistics::Read(Counter::kCommandsPushed), before + queued);
  gate.set_value();
  (void)worker.PushCmd(std::function<int()>([] { return 0; }), "");
}

TEST(MsgMgrMemoryTest, TheFirstUseOfTheWorkerWithoutMemoryGivesACode) {
  support::ExpectTrueInFreshProcess([] {
    const support::TempDir dir;
    tagZelUtilInitParam param = {};
    dir.Path().copy(param.dbPath, sizeof(param.dbPath) - 1);
    int refusals = -1;
    int result = kPushNoMemory;
    for (; result == kPushNoMemory; ++refusals) {
      t_allocationsLeft = refusals + 1;
      result = CommonUtil::getInst().InitCommonUtil(param, nullptr);
      t_allocationsLeft = -1;
    }
    EXPECT_EQ(support::CountLog("pThreadExec new failed!", 1), refusals);
    return result == kOk && refusals > 4;
  });
}

TEST(MsgMgrMemoryTest, ExportedFunctionsGiveACodeForTextsThatFindNoMemory) {
  CommonUtil& facade = CommonUtil::getInst();
  CommonUtilPrivateManager& cache = CommonUtilPrivateManager::getInst();
  const std::string text(9000, 't');
  const ZelConfigCache row{0, "key", text};
  ASSERT_EQ(cache.SingleAddConfigCache({0, "stored", text}), kOk);
  tagZelUtilSpecialParam event = {};
  std::fill(std::begin(event.args), std::end(event.args), 'a');
  facade.SetDeviceGuid("guid");
  ZelConfigCache out;
  int count = 1;
  char guid[5] = "";
  const std::pair<std::function<int()>, int> calls[] = {
      {[&] { return cache.SingleAddConfigCache(row); }, kPushNoMemory},
      {[&] { return cache.BatchAddConfigCache(&row, 1); }, kFailed},
      {[&] { return cache.QueryConfigCacheByKey("stored", &out, &count); }, kPushNoMemory},
      {[&] { return facade.UTAddUserTrack(event); }, kFailed},
      {[&] { return facade.UTFinishEvent("index", 5, event); }, kFailed},
      {[&] { return facade.UTAddMediaTrack(event, true); }, kFailed},
      {[&] { return facade.SetUserInfo({}, text.c_str(), text.size()); }, kFailed},
      {[&] { return facade.SetDeviceGuid(text.c_str()), 0; }, 0},
      {[&] { return facade.NetworkChange(text.c_str(), text.size(), nullptr), 0; }, 0}};
  for (const auto& [call, expected] : calls) {
    t_largestAllocation = 8000;
    const int result = call();
    t_largestAllocation = kNoLimit;
    EXPECT_EQ(result, expected) << "call " << &call - &calls[0].first;
  }
  int length = sizeof(guid);
  facade.GetDeviceGuid(guid, length);
  EXPECT_STREQ(guid, "guid");
  (void)cache.DeleteConfigCacheByKey("stored");
}

// The worker drops commands as it stops; without memory for the exception the process ended.
TEST(MsgMgrMemoryTest, ACommandIsDroppedWithoutMemory) {
  auto command = std::make_unique<ThreadExec>([] { return 0; }, "", std::promise<std::int32_t>());
  const std::shared_future<std::int32_t> result = command->Result();
  t_allocationsLeft = 0;
  command.reset();
  t_allocationsLeft = -1;
  EXPECT_THROW((void)result.get(), std::future_error);
}

}  // namespace
}  // namespace commonutil
