// The choice of SBC addresses.
#include <cstddef>

#include "publicInc/CommonUtilPrivateManager.h"
#include "util/Log.h"
#include "zel_platform/nettools.h"
#include "zel_platform/prax.h"
#include "zel_platform/securec.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilPrivateManager";

constexpr std::size_t kListBytes = 512;
constexpr char kSeparator[] = ";";
constexpr char kStrongSeparator[] = ",";
constexpr char kPortMark = ':';

bool IsPublic(const std::string& address) {
  return orb_is_public_ipv4(PRAX_InetAddr(address.c_str()));
}

std::string HostOf(const std::string& entry) { return entry.substr(0, entry.find(kPortMark)); }

std::string SelectSameSide(const std::vector<std::string>& entries, bool isPublic) {
  std::string selected;
  for (const std::string& entry : entries) {
    if (IsPublic(HostOf(entry)) != isPublic) continue;
    ZEL_LOG_DATA(kInfo) << "add sbcAddress: " << entry;
    if (!selected.empty()) selected += kSeparator;
    selected += entry;
  }
  return selected;
}

void Replace(char* sbcAddress, int len, const std::string& selected) {
  const errno_t error = strcpy_s(sbcAddress, static_cast<rsize_t>(len), selected.c_str());
  if (error != 0) ZEL_LOG(kError) << "secure func return err: " << error;
}

}  // namespace

void CommonUtilPrivateManager::CheckSbcAddressByMrcIp(char* sbcAddress, const char* mrcIp,
                                                      int len) {
  // At error level on every call: which addresses were offered is to be in every log.
  ZEL_LOG_DATA(kError) << "old sbcAddress: " << sbcAddress;
  if (sbcAddress == nullptr) return;
  std::vector<std::string> entries;
  ParseIPList(sbcAddress, entries);
  const std::string selected = SelectSameSide(entries, IsPublic(mrcIp == nullptr ? "" : mrcIp));
  if (!selected.empty()) Replace(sbcAddress, len, selected);
  ZEL_LOG_DATA(kInfo) << "new sbcAddress: " << sbcAddress << "; mrcIp: " << mrcIp;
}

void CommonUtilPrivateManager::ParseIPList(const std::string& text, std::vector<std::string>& out) {
  if (text.empty()) return;
  if (text.find(kStrongSeparator) != std::string::npos) {
    SplitStrByDelim(text, out, kStrongSeparator);
  } else if (text.find(kSeparator) != std::string::npos) {
    SplitStrByDelim(text, out, kSeparator);
  } else {
    out.push_back(text);
  }
}

void CommonUtilPrivateManager::SplitStrByDelim(const std::string& text,
                                               std::vector<std::string>& out,
                                               const std::string& delim) {
  char list[kListBytes] = {};
  const errno_t error = strcpy_s(list, sizeof(list), text.c_str());
  if (error != 0) ZEL_LOG(kError) << "secure func return err: " << error;
  char* rest = nullptr;
  for (char* entry = strtok_s(list, delim.c_str(), &rest); entry != nullptr;
       entry = strtok_s(nullptr, delim.c_str(), &rest)) {
    out.emplace_back(entry);
  }
}

}  // namespace commonutil
