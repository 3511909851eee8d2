#include "publicInc/msg_storage.h"

#include <limits>
#include <new>

#include "publicInc/ExportSignal.h"
#include "util/Log.h"
#include "util/ScopeGuard.h"
#include "zel_platform/securec.h"

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/msg_storage";

// Lines of both stores, under the name of the store.
LogStream StoreError(const char* function, int line) {
  return LogStream::GetLogStream(commonutil::kLogModule, commonutil::kError,
                                 commonutil::kCheckPlain, kLogFile, function, line);
}

// A NUL-terminated copy; null without memory.
std::unique_ptr<char[]> CopyMessage(const char* data, unsigned long length, const char* function) {
  // Room for the NUL cannot be counted above this.
  if (length == std::numeric_limits<unsigned long>::max()) return nullptr;
  std::unique_ptr<char[]> copy(new (std::nothrow) char[length + 1]);
  if (!copy) {
    StoreError(function, __LINE__) << "new char failed";
    return nullptr;
  }
  const errno_t error = memcpy_s(copy.get(), length + 1, data, length);
  if (error != 0) StoreError(function, __LINE__) << "secure function return err: " << error;
  copy[length] = '\0';
  return copy;
}

int StoreCopy(MessageRing& ring, const char* data, unsigned long length, const char* function) {
  if (data == nullptr || length == 0) return 0;
  std::unique_ptr<char[]> copy = CopyMessage(data, length, function);
  return copy ? ring.Store(copy) : 0;
}

// Of a count that one thread at a time writes.
void Increase(std::atomic<std::uint64_t>& count) {
  count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

bool MakeLock(PRAX_MUTEX& lock) {
  (void)memset_s(&lock, sizeof(lock), 0, sizeof(lock));
  return PRAX_MutexInitRecursive(&lock) == 0;
}

}  // namespace

MessageRing::MessageRing(std::uint32_t firstCount)
    : m_written(firstCount),
      m_takenSeen(firstCount),
      m_taken(firstCount),
      m_writtenSeen(firstCount),
      m_slots(new (std::nothrow) char* [kSlots] {}) {}

MessageRing::~MessageRing() {
  char* message = nullptr;
  while (Take(&message) == 1) delete[] message;
}

int MessageRing::Store(std::unique_ptr<char[]>& message) {
  const std::uint32_t written = m_written.load(std::memory_order_relaxed);
  // The other side's count is read when the ring may be full, and when more than ever may wait.
  const std::uint32_t highest = m_highWater.load(std::memory_order_relaxed);
  if (written - m_takenSeen >= highest) m_takenSeen = m_taken.load(std::memory_order_acquire);
  const std::uint32_t waiting = written - m_takenSeen;
  if (!m_slots || waiting >= kSlots) {
    Increase(m_refused);
    return 0;
  }
  m_slots[written & (kSlots - 1)] = message.release();
  m_written.store(written + 1, std::memory_order_release);
  Increase(m_stored);
  if (waiting + 1 > highest) m_highWater.store(waiting + 1, std::memory_order_relaxed);
  return 1;
}

int MessageRing::Take(char** out) {
  const std::uint32_t taken = m_taken.load(std::memory_order_relaxed);
  if (out == nullptr || !m_slots) return 0;
  if (taken == m_writtenSeen) m_writtenSeen = m_written.load(std::memory_order_acquire);
  if (taken == m_writtenSeen) return 0;
  char*& slot = m_slots[taken & (kSlots - 1)];
  char* const message = slot;
  slot = nullptr;
  m_taken.store(taken + 1, std::memory_order_release);
  if (message == nullptr) return 0;
  *out = message;
  return 1;
}

MessageRing::Figures MessageRing::ReadFigures() const {
  // In this order: what was taken had been written.
  const std::uint32_t taken = m_taken.load(std::memory_order_acquire);
  const std::uint32_t written = m_written.load(std::memory_order_acquire);
  return {m_stored.load(std::memory_order_relaxed), m_refused.load(std::memory_order_relaxed),
          written - taken, m_highWater.load(std::memory_order_relaxed)};
}

msg_storage::msg_storage(std::uint32_t firstCount)
    : m_inbound(firstCount), m_outbound(firstCount), m_outLockUsable(MakeLock(m_outLock)) {}

msg_storage::~msg_storage() {
  if (m_outLockUsable) PRAX_MutexDestroy(&m_outLock);
}

int msg_storage::RecvMsgImport(const char* data, unsigned long length) {
  return StoreCopy(m_inbound, data, length, __func__);
}

int msg_storage::RecvMsgExport(char** out) { return m_inbound.Take(out); }

// The copy is made under the lock too: messages leave in the order in which their stores began.
int msg_storage::SendMsgImport(const char* data, unsigned long length) {
  if (m_outLockUsable) PRAX_MutexLock(&m_outLock);
  const commonutil::ScopeGuard unlock([this] {
    if (m_outLockUsable) PRAX_MutexUnLock(&m_outLock);
  });
  const int stored = StoreCopy(m_outbound, data, length, __func__);
  if (stored == 1 && m_signal != nullptr) m_signal->Raise();
  return stored;
}

int msg_storage::SendMsgExport(char** out) {
  const int taken = m_outbound.Take(out);
  if (m_signal != nullptr && m_signal->IsInUse() && m_outbound.IsEmpty()) {
    m_signal->Lower();
    if (!m_outbound.IsEmpty()) m_signal->KeepUp();
  }
  return taken;
}
