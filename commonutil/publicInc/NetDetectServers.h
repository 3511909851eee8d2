// The four servers of the next network detection, on their way to the network tools.
#pragma once

#include <cstddef>

#include "zel_platform/nettools.h"

namespace commonutil {

class NetDetectServers {
 public:
  static constexpr std::size_t kCount = 4;

  // All without a domain. Reads whether the servers are asked over TLS: one mode for all.
  NetDetectServers();

  // A domain that does not fit leaves the entry empty. `index` is below kCount.
  void Set(std::size_t index, const char* domain);
  // Hands them to the network tools; their result.
  int Apply() const;

 private:
  tagNET_DETECT_SRV m_servers[kCount] = {};
};

}  // namespace commonutil
