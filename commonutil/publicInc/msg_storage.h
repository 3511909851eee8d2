// The two bounded message rings between the host and the service.
//
// Inbound has one producer (the host's importing thread) and one consumer (the service
// thread) and takes no lock. Outbound has many producers, serialised by m_outLock, and one
// consumer (the host's exporting thread).
// A ring owns every string it holds, from a successful store to the take.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "zel_platform/prax.h"

namespace commonutil {
class ExportSignal;
}

// One ring: a store and a take may run at the same time on two threads.
class MessageRing {
 public:
  static constexpr std::uint32_t kSlots = 2048;  // a power of two
  static_assert((kSlots & (kSlots - 1)) == 0, "slots are found with a mask");

  // `firstCount` is where the counts begin.
  explicit MessageRing(std::uint32_t firstCount = 0);
  ~MessageRing();
  MessageRing(const MessageRing&) = delete;
  MessageRing& operator=(const MessageRing&) = delete;

  // Takes `message` over and returns 1, or returns 0 and leaves it: the ring is full or
  // has no slots. Producer only.
  int Store(std::unique_ptr<char[]>& message);
  // 1 with the oldest message, the caller's to delete[]; 0 with `*out` untouched when there is
  // none. A slot that holds null is passed over and gives 0. Consumer only.
  int Take(char** out);

  // Any thread. What waits may have changed when the answer is there.
  struct Figures {
    std::uint64_t stored;
    std::uint64_t refused;  // stores that found the ring full
    std::uint32_t waiting;
    std::uint32_t highWater;  // the most that ever waited
  };
  Figures ReadFigures() const;
  bool IsEmpty() const { return ReadFigures().waiting == 0; }

 private:
  // Message i sits in slot i & (kSlots - 1). The counts only grow and wrap at 2^32: equal
  // means empty, kSlots apart means full. Each side has a cache line of its own, and looks at
  // the other's count only when what it last saw there says full or empty.
  alignas(64) std::atomic<std::uint32_t> m_written;  // written by the producer, release
  std::uint32_t m_takenSeen;                         // producer's
  std::atomic<std::uint64_t> m_stored{0};            // written by the producer, as the next two
  std::atomic<std::uint64_t> m_refused{0};
  std::atomic<std::uint32_t> m_highWater{0};
  alignas(64) std::atomic<std::uint32_t> m_taken;      // written by the consumer, release
  std::uint32_t m_writtenSeen;                         // consumer's
  alignas(64) const std::unique_ptr<char*[]> m_slots;  // null without memory
};

class msg_storage {
 public:
  // `firstCount` is where the rings' counts begin.
  explicit msg_storage(std::uint32_t firstCount = 0);
  ~msg_storage();
  msg_storage(const msg_storage&) = delete;
  msg_storage& operator=(const msg_storage&) = delete;

  // Stores a NUL-terminated copy; the caller keeps `data`. Returns 1, or 0 with nothing
  // stored: null data, zero length, full ring, no memory. Host's importing thread only.
  int RecvMsgImport(const char* data, unsigned long length);
  // Takes the oldest request; the caller deletes it with delete[]. Service thread only.
  int RecvMsgExport(char** out);
  // As RecvMsgImport, on the outbound ring. Any thread.
  int SendMsgImport(const char* data, unsigned long length);
  // Takes the oldest outbound message. Host's exporting thread only.
  int SendMsgExport(char** out);

  // Any thread.
  const MessageRing& Inbound() const { return m_inbound; }
  const MessageRing& Outbound() const { return m_outbound; }

  // Raised after each outbound store and lowered when a take leaves none. Set before other threads
  // know this object; it lives longer.
  void SetExportSignal(commonutil::ExportSignal* signal) { m_signal = signal; }

 private:
  MessageRing m_inbound;
  MessageRing m_outbound;
  PRAX_MUTEX m_outLock;
  // False when the lock could not be made: the outbound ring then works without it.
  const bool m_outLockUsable;
  commonutil::ExportSignal* m_signal = nullptr;
};
