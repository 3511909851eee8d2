#include "publicInc/CommonUtilGlobalErrorCode.h"

#include <array>
#include <cstddef>

#include "publicInc/GlobalErrorCodeTable.h"
#include "util/Log.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilGlobalErrorCode";

// Three slots in ten are taken, so a look-up ends after a step or two.
constexpr std::size_t kSlotBits = 12;
constexpr std::size_t kSlots = std::size_t{1} << kSlotBits;
constexpr std::int32_t kFree = 0;  // no row has it: 0 is success

// The high bits of a product with 2^32 divided by the golden ratio: neighbouring codes, of which
// the table is made, end up far apart.
constexpr std::size_t FirstSlot(std::int32_t code) {
  return (static_cast<std::uint32_t>(code) * 2654435769U) >> (32 - kSlotBits);
}

// A hash table with linear probing, made by the compiler: the library's load builds nothing.
class ErrorCodeMap {
 public:
  template <std::size_t kRows>
  explicit constexpr ErrorCodeMap(const GlobalErrorCodeRow (&rows)[kRows]) {
    static_assert(kRows < kSlots, "a search ends at a free slot");
    for (const GlobalErrorCodeRow& row : rows) {
      GlobalErrorCodeRow& slot = m_slots[SlotOf(row.code)];
      if (slot.code == kFree) slot = row;
    }
  }

  // Null for an unknown code.
  constexpr const GlobalErrorCodeRow* Find(std::int32_t code) const {
    const GlobalErrorCodeRow& slot = m_slots[SlotOf(code)];
    return slot.code == kFree ? nullptr : &slot;
  }

 private:
  // Where `code` is, or the free slot where it would be.
  constexpr std::size_t SlotOf(std::int32_t code) const {
    std::size_t slot = FirstSlot(code);
    while (m_slots[slot].code != code && m_slots[slot].code != kFree) slot = (slot + 1) % kSlots;
    return slot;
  }

  std::array<GlobalErrorCodeRow, kSlots> m_slots{};
};

constexpr ErrorCodeMap globalErrCodeMap(kGlobalErrorCodeRows);

}  // namespace

tagSDKERR ZelGlobalErrorCode::GetGlobalErrorCode(int code) {
  if (code == SDKERR_SUCCESS) return SDKERR_SUCCESS;
  const GlobalErrorCodeRow* const row = globalErrCodeMap.Find(code);
  if (row != nullptr) return static_cast<tagSDKERR>(row->globalCode);
  ZEL_LOG(kInfo) << "unkown errCode: " << code;
  return static_cast<tagSDKERR>(code);
}

}  // namespace commonutil
