// Tells hosts that a message waits for them, so that they need not look again and again. Any
// thread. Nothing is paid for it before the descriptor is asked for.
#pragma once

#include <atomic>

#include "util/Mutex.h"

namespace commonutil {

class ExportSignal {
 public:
  ExportSignal() = default;
  ExportSignal(const ExportSignal&) = delete;
  ExportSignal& operator=(const ExportSignal&) = delete;

  // An eventfd(2), readable from a Raise to the next Lower; the same for good, never closed. -1
  // when there can be none.
  int Descriptor();
  // The same, for the host to watch: from now on it is lowered as soon as nothing waits.
  int ShowDescriptor();

  // After a message was stored.
  void Raise();
  // After the store was found empty. The caller then looks into it once more, and raises the signal
  // again when a message has come meanwhile: its sender may have found the mark still set.
  void Lower();
  bool IsInUse() const { return m_descriptor.load(std::memory_order_acquire) >= 0; }
  bool IsShown() const { return m_shown.load(std::memory_order_relaxed); }

  // Blocks until the signal is raised, at most `timeoutMs`; false when the time is over.
  bool Wait(unsigned int timeoutMs);

 private:
  void Write();

  Mutex m_lock;  // so that the descriptor is made once
  std::atomic<int> m_descriptor{-1};
  std::atomic<bool> m_shown{false};
  // Whether the descriptor is readable, or about to be. Only ever exchanged: who finds it set,
  // finds also what was stored before it was set.
  std::atomic<bool> m_raised{false};
};

}  // namespace commonutil
