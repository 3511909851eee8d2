// The command worker of the process, kept on one core.
#pragma once

#include <functional>

#include "Ratio.h"
#include "util/MsgMgr.h"

namespace bench {

class PinnedWorker {
 public:
  explicit PinnedWorker(int core) {
    RunThere([&] { m_pinned = new Pinned(core); });
  }
  ~PinnedWorker() {
    RunThere([&] { delete m_pinned; });
  }
  PinnedWorker(const PinnedWorker&) = delete;
  PinnedWorker& operator=(const PinnedWorker&) = delete;

 private:
  static void RunThere(const std::function<void()>& body) {
    const std::function<int()> command = [&] {
      body();
      return 0;
    };
    (void)commonutil::MsgMainThreadMgrHandler::GetInst().PushCmd(command, "bench");
  }

  Pinned* m_pinned = nullptr;  // of the worker's thread
};

}  // namespace bench
