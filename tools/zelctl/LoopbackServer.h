// A socket on loopback and the thread that serves it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace zelctl {

// Serves one client, or one datagram, at a time. A client that keeps silent or reads nothing is
// left after a few seconds, and at once when the server ends.
class LoopbackServer {
 public:
  // Takes the client's socket, which is closed after it; for UDP the server's own, once per
  // datagram that waits.
  using Serve = std::function<void(int socket)>;

  // `type` is SOCK_STREAM or SOCK_DGRAM. Throws std::system_error.
  LoopbackServer(int type, Serve serve);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::uint16_t Port() const { return m_port; }

 private:
  void Run(int type, const Serve& serve);
  void ServeClient(int client, const Serve& serve);

  int m_socket;
  int m_stop;  // an eventfd, readable once the server is to end
  std::uint16_t m_port = 0;
  std::mutex m_lock;      // guards the next two
  int m_client = -1;      // the one being served
  bool m_isOver = false;  // nobody is served any more
  std::thread m_thread;
};

// One HTTP/1.1 request as far as it is looked at.
struct LoopbackRequest {
  std::string method, target;
  std::string headers;  // lower case, each line after a line end
  std::string body;     // of what Content-Length tells, at most 64 MB

  // The value of a header, "" without one; `name` in lower case.
  std::string Header(const std::string& name) const;
};

// False when the client sends none, too much, or too slowly.
bool ReadRequest(int socket, LoopbackRequest* request);
void SendAnswer(int socket, const std::string& status, const std::string& headers,
                const std::string& body);
bool SendAll(int socket, const std::string& data);
// Passes bytes on in both directions until one side ends or nothing comes for a few seconds.
void Relay(int one, int other);
// A connection to a port of loopback, -1 when there is none.
int ConnectLoopback(std::uint16_t port);

}  // namespace zelctl
