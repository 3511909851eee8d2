#include "Loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "LoopbackServer.h"

namespace zelctl {
namespace {

// base64 of the account, as RFC 7617 wants it.
constexpr char kCredentials[] = "Basic dXNlcjpzZWNyZXQ=";
constexpr char kHost[] = "127.0.0.1";
constexpr char kText[] = "Content-Type: text/plain\r\n";
constexpr char kJson[] = "Content-Type: application/json\r\n";
constexpr char kHttp[] = "http://";

void ServeOrigin(int client) {
  LoopbackRequest request;
  if (!ReadRequest(client, &request)) return;
  if (request.target == "/audit/files") {
    SendAnswer(client, "200 OK", kJson, R"({"code":0,"fileId":"1","message":"received"})");
  } else if (request.target == "/audit/reports") {
    SendAnswer(client, "200 OK", kJson, R"({"value":0,"text":"noted"})");
  } else if (request.target == "/audit/queries") {
    SendAnswer(client, "200 OK", kJson,
               R"({"entries":[{"value":1,"text":"first","value8":1},)"
               R"({"value":2,"text":"second","value8":9007199254740993}]})");
  } else {
    SendAnswer(client, "200 OK", kText, "zelctl's origin\n");
  }
}

// "127.0.0.1:port": the proxy leads nowhere else.
bool ParseLocalTarget(const std::string& authority, std::uint16_t* port) {
  const std::string prefix = std::string(kHost) + ":";
  if (authority.compare(0, prefix.size(), prefix) != 0) return false;
  const char* const end = authority.data() + authority.size();
  const auto [rest, error] = std::from_chars(authority.data() + prefix.size(), end, *port);
  return error == std::errc() && rest == end;
}

void ServeProxy(int client) {
  LoopbackRequest request;
  if (!ReadRequest(client, &request)) return;
  if (request.Header("proxy-authorization") != kCredentials) {
    return SendAnswer(client, "407 Proxy Authentication Required",
                      "Proxy-Authenticate: Basic realm=\"loopback\"\r\n", "");
  }
  const bool isTunnel = request.method == "CONNECT";
  const std::size_t start = isTunnel ? 0 : std::strlen(kHttp);
  const std::size_t path = std::min(request.target.find('/', start), request.target.size());
  std::uint16_t port = 0;
  if ((!isTunnel && request.target.compare(0, start, kHttp) != 0) ||
      !ParseLocalTarget(request.target.substr(start, path - start), &port)) {
    return SendAnswer(client, "403 Forbidden", kText, "only loopback\n");
  }
  const int origin = ConnectLoopback(port);
  if (origin < 0) return SendAnswer(client, "502 Bad Gateway", kText, "nothing listens\n");
  const std::string opening = request.method + " " + request.target.substr(path) +
                              " HTTP/1.1\r\nHost: " + kHost + "\r\nConnection: close\r\n\r\n" +
                              request.body;
  const bool isOpen = isTunnel ? SendAll(client, "HTTP/1.1 200 Connection established\r\n\r\n")
                               : SendAll(origin, opening);
  if (isOpen) Relay(client, origin);
  (void)::close(origin);
}

// Answers a binding request with the client's address (RFC 8489); anything else gets no answer.
void ServeStun(int socket) {
  constexpr std::size_t kHeaderBytes = 20;
  constexpr unsigned char kRequest[] = {0x00, 0x01};
  constexpr unsigned char kSuccess[] = {0x01, 0x01, 0x00, 0x0c};
  constexpr unsigned char kCookie[] = {0x21, 0x12, 0xa4, 0x42};
  constexpr unsigned char kXorMappedAddress[] = {0x00, 0x20, 0x00, 0x08, 0x00, 0x01};
  unsigned char message[kHeaderBytes + 12] = {};
  sockaddr_in from = {};
  socklen_t size = sizeof(from);
  auto* const generic = reinterpret_cast<sockaddr*>(&from);
  const ssize_t got =
      ::recvfrom(socket, message, kHeaderBytes, MSG_TRUNC | MSG_DONTWAIT, generic, &size);
  const std::size_t attributes = message[2] * 256U + message[3];
  if (got != static_cast<ssize_t>(kHeaderBytes + attributes) ||
      !std::equal(std::begin(kRequest), std::end(kRequest), message) ||
      !std::equal(std::begin(kCookie), std::end(kCookie), message + 4)) {
    return;
  }
  unsigned char address[6];
  std::memcpy(address, &from.sin_port, 2);
  std::memcpy(address + 2, &from.sin_addr, 4);
  std::copy(std::begin(kSuccess), std::end(kSuccess), message);
  unsigned char* out =
      std::copy(std::begin(kXorMappedAddress), std::end(kXorMappedAddress), message + kHeaderBytes);
  for (int i = 0; i < 2; ++i) *out++ = address[i] ^ kCookie[i];
  for (int i = 0; i < 4; ++i) *out++ = address[2 + i] ^ kCookie[i];
  (void)::sendto(socket, message, sizeof(message), MSG_DONTWAIT, generic, size);
}

}  // namespace

Loopback::Loopback() {
  m_servers.push_back(std::make_unique<LoopbackServer>(SOCK_STREAM, &ServeOrigin));
  m_servers.push_back(std::make_unique<LoopbackServer>(SOCK_STREAM, &ServeProxy));
  m_servers.push_back(std::make_unique<LoopbackServer>(SOCK_DGRAM, &ServeStun));
  const auto port = [this](int server) { return std::to_string(m_servers[server]->Port()); };
  m_places = {{"ORIGIN", std::string(kHttp) + kHost + ":" + port(0) + "/"},
              {"PROXY_HOST", kHost},
              {"PROXY_PORT", port(1)},
              {"PROXY_USER", kLoopbackUser},
              {"PROXY_PASSWORD", kLoopbackPassword},
              {"STUN", std::string(kHost) + ":" + port(2)}};
}

Loopback::~Loopback() = default;

std::string FillPlaces(const std::string& line, const std::map<std::string, std::string>& places) {
  std::string filled;
  std::size_t at = 0;
  for (std::size_t open = line.find("${"); open != std::string::npos; open = line.find("${", at)) {
    const std::size_t close = line.find('}', open);
    if (close == std::string::npos) break;
    const std::string inside = line.substr(open + 2, close - open - 2);
    const std::size_t mark = inside.find(":-");
    const auto place = places.find(inside.substr(0, mark));
    filled += line.substr(at, open - at);
    at = close + 1;
    if (place != places.end()) {
      filled += place->second;
    } else {
      filled += mark == std::string::npos ? line.substr(open, at - open) : inside.substr(mark + 2);
    }
  }
  return filled + line.substr(at);
}

}  // namespace zelctl
