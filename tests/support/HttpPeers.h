// The HTTP servers and proxies that the tests speak to.
#pragma once

#include <memory>
#include <string>

#include "support/Peer.h"

namespace support {

// The account that the authenticating proxies know.
inline constexpr char kProxyUser[] = "user";
inline constexpr char kProxyPassword[] = "proxy-secret";

// nginx: /ok 200, /moved 302 to /ok, /missing 404, /error 500, /bad-gateway 502, /closed closes
// without an answer, /slow sends a few bytes a second for an hour; the same over TLS on TlsPort().
std::unique_ptr<Peer> StartNginx(const Certificate& certificate);

enum class ProxyAccess { kOpen, kBasic, kDigest };

// Answers 403 for paths that begin with /forbidden, and 503 when the origin is dead.
std::unique_ptr<Peer> StartSquid(ProxyAccess access);

// Knows no Digest. `allowed` is the only client address that is served; others get 403.
std::unique_ptr<Peer> StartTinyproxy(ProxyAccess access, const std::string& allowed = "127.0.0.1");

}  // namespace support
