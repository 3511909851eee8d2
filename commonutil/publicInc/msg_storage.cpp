#include "publicInc/msg_storage.h"

#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "publicInc/ExportSignal.h"
#include "util/Log.h"
#include "util/ScopeGuard.h"
#include "zel_platform/securec.h"

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/msg_storage";
constexpr unsigned long kLengthMax = std::numeric_limits<unsigned long>::max();
// All requests up to this length get memory of one size, so that it can be used again.
constexpr unsigned long kShortRequest = 255;

// Lines of both stores, under the name of the store.
LogStream StoreError(const char* function, int line) {
  return LogStream::GetLogStream(commonutil::kLogModule, commonutil::kError,
                                 commonutil::kCheckPlain, kLogFile, function, line);
}

// Null without memory.
std::unique_ptr<char[]> NewText(unsigned long size) {
  return std::unique_ptr<char[]>(new (std::nothrow) char[size]);
}

// Stores a NUL-terminated copy in memory that `allocate` returns.
template <class Allocate>
int StoreCopy(MessageRing& ring, const char* data, unsigned long length, const char* function,
              Allocate allocate) {
  // Room for the NUL cannot be counted above the largest length.
  if (data == nullptr || length == 0 || length == kLengthMax) return 0;
  if (!ring.HasRoom()) return 0;
  std::unique_ptr<char[]> copy = allocate(length);
  if (!copy) {
    StoreError(function, __LINE__) << "new char failed";
    return 0;
  }
  const errno_t error = memcpy_s(copy.get(), length + 1, data, length);
  if (error != 0) StoreError(function, __LINE__) << "secure function return err: " << error;
  copy[length] = '\0';
  ring.Store({copy.release(), length});
  return 1;
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

MessageRing::~MessageRing() {
  Message message{};
  while (Take(message)) delete[] message.text;
}

bool MessageRing::HasRoom() {
  if (m_ring.HasRoom()) return true;
  Increase(m_refused);
  return false;
}

void MessageRing::Store(const Message& message) {
  // Looked up when more than ever may wait.
  const std::uint32_t highest = m_highWater.load(std::memory_order_relaxed);
  const std::uint32_t waiting = m_ring.WaitingAtMost(highest) + 1;
  m_ring.Put(message);
  Increase(m_stored);
  if (waiting > highest) m_highWater.store(waiting, std::memory_order_relaxed);
}

MessageRing::Figures MessageRing::ReadFigures() const {
  return {m_stored.load(std::memory_order_relaxed), m_refused.load(std::memory_order_relaxed),
          m_ring.Waiting(), m_highWater.load(std::memory_order_relaxed)};
}

msg_storage::msg_storage(std::uint32_t firstCount)
    : m_inbound(firstCount), m_outbound(firstCount), m_outLockUsable(MakeLock(m_outLock)) {}

msg_storage::~msg_storage() {
  char* spare = nullptr;
  while (m_spares.Take(spare)) delete[] spare;
  if (m_outLockUsable) PRAX_MutexDestroy(&m_outLock);
}

void msg_storage::LockOut() {
  if (m_outLockUsable) PRAX_MutexLock(&m_outLock);
}

void msg_storage::UnlockOut() {
  if (m_outLockUsable) PRAX_MutexUnLock(&m_outLock);
}

std::unique_ptr<char[]> msg_storage::RequestMemory(unsigned long length) {
  if (length > kShortRequest) return NewText(length + 1);
  char* spare = nullptr;
  if (m_spares.Take(spare)) return std::unique_ptr<char[]>(spare);
  return NewText(kShortRequest + 1);
}

int msg_storage::RecvMsgImport(const char* data, unsigned long length) {
  return StoreCopy(m_inbound, data, length, __func__,
                   [this](unsigned long needed) { return RequestMemory(needed); });
}

int msg_storage::RecvMsgExport(char** out) {
  if (out == nullptr || !m_inbound.Take(m_lastRequest)) return 0;
  *out = m_lastRequest.text;
  return 1;
}

void msg_storage::ReleaseRequest(char* request) {
  std::unique_ptr<char[]> owner(request);
  // All of it, also what lies behind a NUL.
  const bool isLast = request == m_lastRequest.text;
  const unsigned long length = isLast ? m_lastRequest.length : std::strlen(request);
  (void)memset_s(request, length, 0, length);  // fails for an empty text only
  if (!isLast) return;
  m_lastRequest = {nullptr, 0};
  if (length <= kShortRequest && m_spares.HasRoom()) m_spares.Put(owner.release());
}

// The copy is made under the lock too: messages leave in the order in which their stores began.
int msg_storage::SendMsgImport(const char* data, unsigned long length) {
  LockOut();
  const commonutil::ScopeGuard unlock([this] { UnlockOut(); });
  const int stored = StoreCopy(m_outbound, data, length, __func__,
                               [](unsigned long needed) { return NewText(needed + 1); });
  if (stored == 1 && m_signal != nullptr) m_signal->Raise();
  return stored;
}

int msg_storage::SendMsgExport(char** out) {
  if (out == nullptr) return 0;
  MessageRing::Message message{};
  const bool taken = m_outbound.Take(message);
  if (taken) *out = message.text;
  // One who waits without the descriptor lowers it before the next sleep: no system call here.
  if (m_signal != nullptr && m_signal->IsShown()) LowerSignalWhenEmpty();
  return taken ? 1 : 0;
}

void msg_storage::AwaitStore() {
  LockOut();
  UnlockOut();
}

void msg_storage::LowerSignalWhenEmpty() {
  if (m_signal == nullptr || !m_outbound.IsEmpty()) return;
  m_signal->Lower();
  if (!m_outbound.IsEmpty()) m_signal->Raise();
}
