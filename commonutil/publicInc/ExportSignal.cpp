#include "publicInc/ExportSignal.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace commonutil {

int ExportSignal::Descriptor() {
  if (!IsInUse()) {
    MutexLock hold(m_lock);
    // cppcheck-suppress identicalInnerCondition ; another thread may have been faster
    if (!IsInUse()) m_descriptor.store(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  }
  return m_descriptor.load();
}

int ExportSignal::ShowDescriptor() {
  m_shown.store(true);
  return Descriptor();
}

void ExportSignal::Raise() {
  if (IsInUse() && !m_raised.exchange(true)) Write();
}

// The descriptor first: a message whose sender finds the mark unset is written for after this.
void ExportSignal::Lower() {
  if (!IsInUse()) return;
  std::uint64_t count = 0;
  (void)!::read(m_descriptor.load(), &count, sizeof(count));
  (void)m_raised.exchange(false);
}

bool ExportSignal::Wait(unsigned int timeoutMs) {
  pollfd descriptor = {Descriptor(), POLLIN, 0};
  const unsigned int longest = std::numeric_limits<int>::max();
  return ::poll(&descriptor, 1, static_cast<int>(std::min(timeoutMs, longest))) > 0;
}

// Fails only when the count is full, and then it is readable.
void ExportSignal::Write() {
  const std::uint64_t one = 1;
  (void)!::write(m_descriptor.load(), &one, sizeof(one));
}

}  // namespace commonutil
