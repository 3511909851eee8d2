// Servers on loopback, in this process, for sessions on a machine without a network: an HTTP origin
// that also answers audit requests, an HTTP proxy with Basic authentication, and a STUN responder.
// Each serves one client at a time on a thread of its own until this object goes.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zelctl {

// The account that the proxy asks for.
inline constexpr char kLoopbackUser[] = "user";
inline constexpr char kLoopbackPassword[] = "secret";

class LoopbackServer;

class Loopback {
 public:
  // Throws std::system_error.
  Loopback();
  ~Loopback();
  Loopback(const Loopback&) = delete;
  Loopback& operator=(const Loopback&) = delete;

  // What a session's placeholders stand for: ORIGIN, a URL; PROXY_HOST, PROXY_PORT, PROXY_USER,
  // PROXY_PASSWORD; STUN, "host:port".
  const std::map<std::string, std::string>& Places() const { return m_places; }

 private:
  std::vector<std::unique_ptr<LoopbackServer>> m_servers;
  std::map<std::string, std::string> m_places;
};

// The line with each ${NAME} and ${NAME:-text} for a NAME of `places` replaced by its place, and
// every other ${NAME:-text} by its text. Everything else stays as it is.
std::string FillPlaces(const std::string& line, const std::map<std::string, std::string>& places);

}  // namespace zelctl
