#include <netdb.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "loghooks/dns_log.h"
#include "nettools/DetectServer.h"

namespace {

constexpr long kHighestPort = 65535;
constexpr int kTooLate = 1;  // getaddrinfo's errors are negative

bool ParsePort(const std::string& text, std::uint16_t* port) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != text.npos) {
    return false;
  }
  const long value = std::stol(text);
  if (value < 1 || value > kHighestPort) return false;
  *port = static_cast<std::uint16_t>(value);
  return true;
}

// As getaddrinfo; `address` is the first one found.
int Find(const std::string& host, int flags, DetectAddress* address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = flags;
  addrinfo* list = nullptr;
  const int code = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (code != 0) return code;
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, &::freeaddrinfo);
  address->length = std::min<socklen_t>(list->ai_addrlen, sizeof(sockaddr_storage));
  std::memcpy(&address->storage, list->ai_addr, address->length);
  return 0;
}

// One look-up. The thread keeps it alive when nobody waits any more.
struct LookUp {
  std::mutex lock;
  std::condition_variable ended;
  bool hasEnded = false;
  int code = 0;
  DetectAddress address;
};

// As Find, or kTooLate.
int FindInTime(const std::string& host, DetectClock::time_point deadline, DetectAddress* address) {
  const auto lookUp = std::make_shared<LookUp>();
  std::thread([host, lookUp] {
    DetectAddress found;
    const int code = Find(host, AI_ADDRCONFIG, &found);
    const std::lock_guard<std::mutex> hold(lookUp->lock);
    lookUp->code = code;
    lookUp->address = found;
    lookUp->hasEnded = true;
    lookUp->ended.notify_one();
  }).detach();
  std::unique_lock<std::mutex> hold(lookUp->lock);
  const bool isInTime =
      lookUp->ended.wait_until(hold, deadline, [&lookUp] { return lookUp->hasEnded; });
  if (!isInTime) return kTooLate;
  *address = lookUp->address;
  return lookUp->code;
}

void SetPort(std::uint16_t port, DetectAddress* address) {
  const std::uint16_t inOrder = htons(port);
  // Both families keep the port at the same place, behind the family.
  std::memcpy(reinterpret_cast<char*>(&address->storage) + sizeof(sa_family_t), &inOrder,
              sizeof(inOrder));
}

}  // namespace

bool ParseDetectEntry(const std::string& text, DetectEntry* entry) {
  entry->port = 0;
  std::string port;
  if (!text.empty() && text.front() == '[') {
    const std::size_t end = text.find(']');
    if (end == std::string::npos) return false;
    entry->host = text.substr(1, end - 1);
    port = text.substr(end + 1);
  } else {
    // Two colons and no brackets: an address without a port.
    const std::size_t colon = text.find(':') == text.rfind(':') ? text.find(':') : text.npos;
    entry->host = text.substr(0, colon);
    if (colon != std::string::npos) port = text.substr(colon);
  }
  if (entry->host.empty()) return false;
  if (port.empty()) return true;
  return port.front() == ':' && ParsePort(port.substr(1), &entry->port);
}

int ResolveDetectEntry(const DetectEntry& entry, std::uint16_t defaultPort,
                       DetectClock::time_point deadline, DetectAddress* address) {
  int code = Find(entry.host, AI_NUMERICHOST, address);
  if (code != 0) {
    const std::string lookUp = "look-up of " + entry.host;
    TellDnsLog(kDnsDetail, lookUp.c_str());
    try {
      code = FindInTime(entry.host, deadline, address);
    } catch (const std::system_error&) {  // no thread
      code = kTooLate;
    }
    const char* const outcome = code == 0          ? "done"
                                : code == kTooLate ? "takes too long"
                                                   : ::gai_strerror(code);
    TellDnsLog(code == 0 ? kDnsDetail : kDnsError, (lookUp + ": " + outcome).c_str());
    if (code != 0) return kDetectNotResolved;
  }
  SetPort(entry.port == 0 ? defaultPort : entry.port, address);
  return 0;
}
