#include "util/MsgMgr.h"

#include <thread>

#include "publicInc/ResultCode.h"
#include "util/Boundary.h"
#include "util/Log.h"
#include "util/ScopeGuard.h"
#include "util/Statistics.h"
#include "zel_platform/prax.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/MsgMgr";
constexpr char kWorkerName[] = "zel_util";
constexpr int kMessageCategory = 4;  // under which tracking counts the commands
constexpr long long kSlowCommandMs = 3000;

unsigned long ThisThread() {
  thread_local const unsigned long id = PRAX_GetTID();  // spares each push a system call
  return id;
}

}  // namespace

std::atomic<unsigned long> MsgMainThreadMgr::m_tid{0};
std::atomic<int> MsgMainThreadMgr::m_stopRunFlag{0};

const std::exception_ptr& ThreadExec::Dropped() {
  static const std::exception_ptr& dropped = *new std::exception_ptr(
      std::make_exception_ptr(std::future_error(std::future_errc::broken_promise)));
  return dropped;
}

void MsgMainThreadMgr::Init() { std::thread(&MsgMainThreadMgr::ThreadFunc, this).detach(); }

int MsgMainThreadMgr::PushCmd(std::function<int()> func, const std::string& name) {
  if (!func) {
    ZEL_LOG(kError) << "PushCmd sync param null";
    return kPushNullCommand;
  }
  if (ThisThread() == m_tid.load()) return func();

  std::shared_future<std::int32_t> result;
  try {
    auto command =
        std::make_shared<ThreadExec>(std::move(func), name, std::promise<std::int32_t>());
    result = command->Result();
    // The queue alone keeps the command: dropping it there must break the promise.
    Push(std::move(command));
  } catch (const std::bad_alloc&) {
    ZEL_LOG(kWarning) << "pThreadExec new failed!";
    return kPushNoMemory;
  }
  try {
    return result.get();
  } catch (const std::future_error&) {  // dropped: the only error a command leaves here
  }
  // Made anew on this thread: the worker may still be releasing the one it left.
  throw std::future_error(std::future_errc::broken_promise);
}

void MsgMainThreadMgr::PushCmd(std::function<void()> func, const std::string& name) {
  Push(std::make_shared<ThreadNoRetExec>(std::move(func), name));
}

void MsgMainThreadMgr::Push(std::shared_ptr<ThreadExecInterface> command) {
  Statistics::Count(Counter::kCommandsPushed);  // first: the worker may have run it at once
  ScopeGuard refused([] { Statistics::TakeBack(Counter::kCommandsPushed); });
  PushBack(std::move(command));
  refused.Dismiss();
}

void MsgMainThreadMgr::StopThread() { m_stopRunFlag.store(1); }

void MsgMainThreadMgr::ThreadFunc() {
  m_tid.store(ThisThread());
  (void)PRAX_PthreadSetName(kWorkerName);  // a thread without a name works as well
  if (m_stopRunFlag.load() != 0) return;
  unsigned long long end = 0;
  do {
    std::shared_ptr<ThreadExecInterface> command;
    const bool follows = HasTaken();  // begins as the last one ends: the clock is the dearest call
    (void)Wait(command);
    if (m_stopRunFlag.load() != 0) return;  // drops the command

    const unsigned long long begin = follows ? end : PRAX_GetSystemTime();
    command->Exec();
    Statistics::Count(Counter::kCommandsRun);
    Track_MsgDotCount(kMessageCategory);
    end = PRAX_GetSystemTime();
    const long long used = static_cast<long long>(end - begin);
    if (used > kSlowCommandMs) {
      Statistics::Count(Counter::kCommandsSlow);
      ZEL_LOG(kWarning) << "func:" << command->Name() << ", begin time: " << begin
                        << ", use time: " << used;
    }
  } while (m_stopRunFlag.load() == 0);
}

MsgMainThreadMgr& MsgMainThreadMgrHandler::GetInst() {
  static MsgMainThreadMgrHandler* const instance = new MsgMainThreadMgrHandler;
  return instance->m_manager;
}

// The line of PushCmd: support looks for it.
int RefuseCommand() {
  ZEL_LOG(kWarning) << "pThreadExec new failed!";
  return kPushNoMemory;
}

int RunOnWorker(const std::function<int()>& command, const char* name) {
  const std::function<int()> safe = [&command] { return AtBoundary(kFailed, command); };
  return AtWorkersEdge([&] { return MsgMainThreadMgrHandler::GetInst().PushCmd(safe, name); });
}

}  // namespace commonutil
