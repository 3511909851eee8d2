// The worker's commands where an allocation fails.
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "publicInc/ResultCode.h"
#include "support/PlatformDouble.h"
#include "util/MsgMgr.h"

namespace {

// After how many further allocations of this thread one fails; negative: none does.
thread_local int t_allocationsLeft = -1;

}  // namespace

__attribute__((noinline)) void* operator new(std::size_t size) {
  if (t_allocationsLeft >= 0 && t_allocationsLeft-- == 0) throw std::bad_alloc();
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
