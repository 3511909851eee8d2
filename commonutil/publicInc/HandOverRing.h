// A bounded ring between one producing and one consuming thread. Takes no lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>

template <class Item, std::uint32_t kSlots>
class HandOverRing {
  static_assert(kSlots != 0 && (kSlots & (kSlots - 1)) == 0, "slots are found with a mask");

 public:
  // `firstCount` is where the counts begin.
  explicit HandOverRing(std::uint32_t firstCount = 0)
      : m_written(firstCount),
        m_takenSeen(firstCount),
        m_taken(firstCount),
        m_writtenSeen(firstCount),
        m_slots(new (std::nothrow) Item[kSlots]{}) {}
  HandOverRing(const HandOverRing&) = delete;
  HandOverRing& operator=(const HandOverRing&) = delete;

  // The most items that may wait: as many as do when it is `exactFrom` or more, else an older
  // figure. Producer only.
  std::uint32_t WaitingAtMost(std::uint32_t exactFrom) {
    const std::uint32_t written = m_written.load(std::memory_order_relaxed);
    if (written - m_takenSeen >= exactFrom) m_takenSeen = m_taken.load(std::memory_order_acquire);
    return written - m_takenSeen;
  }
  // Producer only. Never without memory.
  bool HasRoom() { return m_slots && WaitingAtMost(kSlots) < kSlots; }
  // Producer only, when there is room.
  void Put(const Item& item) {
    const std::uint32_t written = m_written.load(std::memory_order_relaxed);
    m_slots[written & (kSlots - 1)] = item;
    m_written.store(written + 1, std::memory_order_release);
  }
  // False, and `item` untouched, when none waits. Consumer only.
  bool Take(Item& item) {
    const std::uint32_t taken = m_taken.load(std::memory_order_relaxed);
    if (taken == m_writtenSeen) m_writtenSeen = m_written.load(std::memory_order_acquire);
    if (taken == m_writtenSeen) return false;
    item = m_slots[taken & (kSlots - 1)];
    m_taken.store(taken + 1, std::memory_order_release);
    return true;
  }
  // Any thread; may have changed when the answer is there.
  std::uint32_t Waiting() const {
    // In this order: what was taken had been written.
    const std::uint32_t taken = m_taken.load(std::memory_order_acquire);
    return m_written.load(std::memory_order_acquire) - taken;
  }

 private:
  // Item i sits in slot i & (kSlots - 1). The counts only grow and wrap at 2^32: equal means
  // empty, kSlots apart means full. Each side has a cache line of its own, and looks at the
  // other's count only when what it last saw there says full or empty.
  alignas(64) std::atomic<std::uint32_t> m_written;   // written by the producer, release
  std::uint32_t m_takenSeen;                          // producer's
  alignas(64) std::atomic<std::uint32_t> m_taken;     // written by the consumer, release
  std::uint32_t m_writtenSeen;                        // consumer's
  alignas(64) const std::unique_ptr<Item[]> m_slots;  // null without memory
};
