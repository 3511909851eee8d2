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

#include "publicInc/HandOverRing.h"
#include "zel_platform/prax.h"

namespace commonutil {
class ExportSignal;
}

// One ring: a store and a take may run at the same time on two threads.
class MessageRing {
 public:
  static constexpr std::uint32_t kSlots = 2048;

  struct Message {
    char* text;            // of new[]; with a NUL behind its length
    unsigned long length;  // may lie behind an earlier NUL
  };

  // `firstCount` is where the counts begin.
  explicit MessageRing(std::uint32_t firstCount = 0) : m_ring(firstCount) {}
  ~MessageRing();
  MessageRing(const MessageRing&) = delete;
  MessageRing& operator=(const MessageRing&) = delete;

  // False when the ring is full or has no slots; that is counted as a refusal. Producer only.
  bool HasRoom();
  // Takes the text over. Producer only, when there is room.
  void Store(const Message& message);
  // True with the oldest message, the caller's to release; else it is untouched. Consumer only.
  bool Take(Message& message) { return m_ring.Take(message); }

  // Any thread. What waits may have changed when the answer is there.
  struct Figures {
    std::uint64_t stored;
    std::uint64_t refused;  // stores that found the ring full
    std::uint32_t waiting;
    std::uint32_t highWater;  // the most that ever waited
  };
  Figures ReadFigures() const;
  bool IsEmpty() const { return m_ring.Waiting() == 0; }

 private:
  HandOverRing<Message, kSlots> m_ring;
  // Written by the producer.
  std::atomic<std::uint64_t> m_stored{0};
  std::atomic<std::uint64_t> m_refused{0};
  std::atomic<std::uint32_t> m_highWater{0};
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
  // Takes the oldest request; the caller gives it to ReleaseRequest, or deletes it with delete[].
  // Service thread only.
  int RecvMsgExport(char** out);
  // Wipes a request and keeps its memory for a later import, or frees it. Service thread only.
  void ReleaseRequest(char* request);
  // As RecvMsgImport, on the outbound ring. Any thread.
  int SendMsgImport(const char* data, unsigned long length);
  // Takes the oldest outbound message. Host's exporting thread only.
  int SendMsgExport(char** out);

  // Any thread.
  const MessageRing& Inbound() const { return m_inbound; }
  const MessageRing& Outbound() const { return m_outbound; }

  // Raised after each outbound store. Set before other threads know this object; it lives longer.
  void SetExportSignal(commonutil::ExportSignal* signal) { m_signal = signal; }
  // To be called once it is in use: returns when every store that has not seen that is over.
  void AwaitStore();
  // Lowers it when no outbound message waits. Any thread.
  void LowerSignalWhenEmpty();

 private:
  // All that can wait: memory that goes both ways, back here and to the allocator, tears the heap.
  static constexpr std::uint32_t kSpares = MessageRing::kSlots;

  // Of m_outLock, where there is one.
  void LockOut();
  void UnlockOut();

  // Memory for a request of `length` bytes and its NUL, of new[]; null without.
  std::unique_ptr<char[]> RequestMemory(unsigned long length);

  MessageRing m_inbound;
  // Wiped memory of short requests, on its way back to the importing thread: memory that one thread
  // allocates and another frees costs more than all the rest of a hand-over.
  HandOverRing<char*, kSpares> m_spares;
  MessageRing::Message m_lastRequest{nullptr, 0};  // the last one taken; service thread's
  MessageRing m_outbound;
  PRAX_MUTEX m_outLock;
  // False when the lock could not be made: the outbound ring then works without it.
  const bool m_outLockUsable;
  commonutil::ExportSignal* m_signal = nullptr;
};
