// Lists of SBC addresses and the choice among them.
#include <cstring>
#include <memory>
#include <vector>

#include "FuzzInput.h"
#include "publicInc/CommonUtilPrivateManager.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& manager = commonutil::CommonUtilPrivateManager::getInst();
  FuzzInput input(data, size);
  const std::size_t spare = input.TakeByte();
  const std::string mrcIp = input.TakeLine();
  const std::string text = input.Rest();

  std::vector<std::string> entries;
  manager.ParseIPList(text, entries);
  for (const std::string& entry : entries) {
    Require(!entry.empty() && text.find(entry) != std::string::npos,
            "an entry is part of the list");
  }

  // A buffer of its exact size on the heap: a byte beyond it is noticed.
  const std::string list = text.substr(0, text.find('\0'));
  const std::size_t capacity = list.size() + 1 + spare;
  const std::unique_ptr<char[]> buffer(new char[capacity]());
  std::memcpy(buffer.get(), list.c_str(), list.size() + 1);
  manager.CheckSbcAddressByMrcIp(buffer.get(), mrcIp.c_str(), static_cast<int>(capacity));
  const std::string selected(buffer.get(), strnlen(buffer.get(), capacity));
  Require(selected.size() < capacity, "the choice is terminated");
  Require(selected.size() <= list.size(), "the choice is no longer than the list");

  if (list.find(',') != std::string::npos) return 0;  // its entries may hold a ";"
  manager.CheckSbcAddressByMrcIp(buffer.get(), mrcIp.c_str(), static_cast<int>(capacity));
  Require(selected == buffer.get(), "a choice made again stays");
  return 0;
}
