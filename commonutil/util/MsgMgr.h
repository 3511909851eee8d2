// The one worker thread behind the facade: everything that changes the database or the
// managers is pushed to it as a command and runs there, one at a time, in the order pushed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "util/Mutex.h"

namespace commonutil {

// A first-in-first-out list that its reader waits on. Any thread may push, one thread reads. It
// must outlive both.
template <class T>
class SafeCondList {
 public:
  SafeCondList() = default;
  SafeCondList(const SafeCondList&) = delete;
  SafeCondList& operator=(const SafeCondList&) = delete;

  // Throws std::bad_alloc with nothing pushed.
  void PushBack(T element) {
    {
      MutexLock hold(m_lock);
      m_list.push_back(std::move(element));
    }
    m_pushed.notify_all();  // a reader woken under the lock would run into it
  }

  // Whether Wait will return at once. The reader's.
  bool HasTaken() const { return !m_taken.empty(); }

  // Blocks, without a time-out, until there is an element; moves the first one to `out`.
  // Always true.
  bool Wait(T& out) {
    if (m_taken.empty()) TakeAll();
    out = std::move(m_taken.front());
    m_taken.pop_front();
    return true;
  }

 private:
  void TakeAll() {
    MutexLock hold(m_lock);
    while (m_list.empty()) WaitLocked();
    m_taken.swap(m_list);
  }

  void WaitLocked() ZEL_REQUIRES(m_lock) {
    std::unique_lock<std::mutex> native(m_lock.native(), std::adopt_lock);
    m_pushed.wait(native);
    native.release();  // the caller's MutexLock unlocks
  }

  Mutex m_lock;
  std::condition_variable m_pushed;
  std::deque<T> m_list ZEL_GUARDED_BY(m_lock);
  std::deque<T> m_taken;  // the reader's own: ahead of m_list, without the lock
};

// A command: what to run, and the name under which the log reports it when it is slow.
class ThreadExecInterface {
 public:
  explicit ThreadExecInterface(const std::string& name) : m_name(name) {}
  virtual void Exec() = 0;
  virtual ~ThreadExecInterface() = default;
  ThreadExecInterface(const ThreadExecInterface&) = delete;
  ThreadExecInterface& operator=(const ThreadExecInterface&) = delete;

  const std::string& Name() const { return m_name; }

 private:
  const std::string m_name;
};

// A command whose result somebody waits for. Destroyed before it ran, it ends that wait
// with std::future_errc::broken_promise. An exception of the callable is not handed to the one
// who waits: it leaves Exec.
class ThreadExec : public ThreadExecInterface {
 public:
  ThreadExec(std::function<std::int32_t()> func, const std::string& name,
             std::promise<std::int32_t> result)
      : ThreadExecInterface(name),
        m_func(std::move(func)),
        m_result(std::move(result)),
        m_dropped(Dropped()) {}
  ~ThreadExec() override {
    if (!m_ran) m_result.set_exception(m_dropped);
  }
  void Exec() override {
    m_ran = true;
    m_result.set_value(m_func());
  }
  // Once.
  std::shared_future<std::int32_t> Result() { return m_result.get_future().share(); }

 private:
  // Made once, because the worker that drops a command may find no memory for it.
  static const std::exception_ptr& Dropped();

  const std::function<std::int32_t()> m_func;
  std::promise<std::int32_t> m_result;
  const std::exception_ptr& m_dropped;
  bool m_ran = false;  // or throws, and nobody is told
};

class ThreadNoRetExec : public ThreadExecInterface {
 public:
  ThreadNoRetExec(std::function<void()> func, const std::string& name)
      : ThreadExecInterface(name), m_func(std::move(func)) {}
  void Exec() override { m_func(); }

 private:
  const std::function<void()> m_func;
};

// The queue of commands and the thread that runs them. Any thread may push. There is one
// manager per process, because the worker's id and the stop flag are the process's own, and it
// is never destroyed, because the worker is detached.
//
// A command that throws ends the process.
class MsgMainThreadMgr : public SafeCondList<std::shared_ptr<ThreadExecInterface>> {
 public:
  // Starts the worker. Throws std::system_error when there can be no thread.
  void Init();

  // Runs `func` on the worker and returns its result; on the worker itself, at once and
  // before everything queued, so that a command may push another. `name` is the caller's
  // signature. Returns kPushNullCommand for an empty callable, kPushNoMemory when no command
  // can be made. Throws std::future_error when the worker was stopped and has dropped the
  // command; when it had ended before, the call never returns.
  //
  // A lambda that returns int fits both forms: wrap it in the std::function meant.
  int PushCmd(std::function<int()> func, const std::string& name);

  // Queues `func`, which must not be empty, and returns; also on the worker. Throws
  // std::bad_alloc with nothing queued.
  void PushCmd(std::function<void()> func, const std::string& name);

  // For good: the worker ends after the command that it runs now or, if it waits, after
  // dropping the next one. What is queued behind is never run and never released. Does not
  // wait for the worker.
  static void StopThread();

 private:
  void Push(std::shared_ptr<ThreadExecInterface> command);
  void ThreadFunc();

  static std::atomic<unsigned long> m_tid;  // written by the worker as it starts
  static std::atomic<int> m_stopRunFlag;    // written by any thread, 0 to 1 only
};

// Holds the manager of the process.
class MsgMainThreadMgrHandler {
 public:
  // The first call starts the worker. When that throws, std::bad_alloc or std::system_error, the
  // next call tries again.
  static MsgMainThreadMgr& GetInst();

 private:
  MsgMainThreadMgrHandler() { m_manager.Init(); }

  MsgMainThreadMgr m_manager;
};

// Logs that no command can be made, and returns kPushNoMemory.
int RefuseCommand();

// The edge of a function that needs the worker: what `body` returns, or kPushNoMemory where there
// is no memory, or no thread for the worker. The std::future_error of a dropped command passes.
template <class F>
int AtWorkersEdge(F&& body) {
  try {
    return std::forward<F>(body)();
  } catch (const std::bad_alloc&) {
  } catch (const std::system_error&) {
  }
  return RefuseCommand();
}

// Runs `command` on the worker of the process, as PushCmd does, and at its edge; kFailed when the
// command throws. `name` is the caller's signature.
int RunOnWorker(const std::function<int()>& command, const char* name);

}  // namespace commonutil
