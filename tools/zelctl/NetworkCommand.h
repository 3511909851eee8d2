// "zelctl net" and "zelctl proxy": one network detection and one question about the proxy, for
// people who look for the fault in a network.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zelctl {

// SERVER... [--tls] [--json]: measures up to four servers with STUN. True when each answered.
bool MeasureServers(const std::vector<std::string>& arguments,
                    const std::atomic<bool>& interrupted);

// URL [--proxy HOST:PORT] [--user NAME] [--json]: tries the URL directly and through the proxy, and
// tells which way the library would take. The password is that of the environment variable
// ZEL_PROXY_PASSWORD. True when there is a way.
bool TryProxy(const std::vector<std::string>& arguments, const std::atomic<bool>& interrupted);

}  // namespace zelctl
