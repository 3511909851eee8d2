// The bytes of an HTTP server or proxy, sent by a peer on loopback that reads one request first.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <thread>

#include "FuzzInput.h"
#include "config/settings.h"
#include "http/HttpClient.h"
#include "support/TempDir.h"

namespace {

constexpr char kSettings[] = "{\"http\":{\"connectTimeoutMs\":1000,\"totalTimeoutMs\":1000}}";

// Answers every connection with the current bytes, until the process ends.
class Peer {
 public:
  Peer() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    Require(::bind(m_listener, generic, length) == 0 && ::listen(m_listener, 8) == 0 &&
                ::getsockname(m_listener, generic, &length) == 0,
            "the peer listens");
    m_port = ::ntohs(address.sin_port);
    std::thread([this] { Serve(); }).detach();
  }
  unsigned short Port() const { return m_port; }
  void SetAnswer(const std::string& answer) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_answer = answer;
  }

 private:
  std::string Answer() {
    const std::lock_guard<std::mutex> hold(m_lock);
    return m_answer;
  }
  // The client closes first: the ports of closed connections stay usable for it.
  void Serve() {
    for (int connection; (connection = ::accept(m_listener, nullptr, nullptr)) >= 0;) {
      char bytes[4096];
      if (::recv(connection, bytes, sizeof(bytes), 0) > 0) {
        const std::string answer = Answer();
        (void)!::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
        (void)::shutdown(connection, SHUT_WR);
        while (::recv(connection, bytes, sizeof(bytes), 0) > 0) {
        }
      }
      (void)::close(connection);
    }
  }

  const int m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  unsigned short m_port = 0;
  std::mutex m_lock;
  std::string m_answer;  // guarded by m_lock
};

Peer* Start() {
  static const support::TempDir directory;
  support::WriteWholeFile(directory.File("platform.json"), kSettings);
  orb_config_set_directory(directory.Path());
  return new Peer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Peer& peer = *Start();
  FuzzInput input(data, size);
  const unsigned kind = input.TakeByte() % 4;
  peer.SetAnswer(input.Rest());
  ORB_HTTP_PROXY proxy = {"127.0.0.1", peer.Port(), "user", "password"};
  if (kind == 3) return HttpTunnel(proxy, "origin.example", 443) * 0;

  HttpCall call;
  call.url = "http://127.0.0.1:" + std::to_string(peer.Port()) + "/";
  if (kind == 1) call.method = HttpMethod::kPost;
  if (kind == 2) call.proxy = &proxy;
  const HttpAnswer answer = HttpSend(call);
  Require(answer.headers.size() + answer.body.size() <= kHttpKeptBytes, "answers are capped");
  Require(answer.curlCode != 0 || answer.status != 0, "a completed exchange has a status");
  Require(answer.retryAfterSeconds >= 0, "nobody is to come back in the past");
  return 0;
}
