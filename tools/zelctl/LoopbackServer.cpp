#include "LoopbackServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <system_error>

namespace zelctl {
namespace {

constexpr int kPatienceSeconds = 5;
constexpr int kPatienceMs = kPatienceSeconds * 1000;
constexpr std::size_t kHeaderBytes = std::size_t{64} * 1024;
constexpr std::size_t kBodyBytes = 64UL * 1024 * 1024;
constexpr char kEndOfHeaders[] = "\r\n\r\n";
constexpr int kNone = -1;

sockaddr_in LoopbackAddress(std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = ::htons(port);
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  return address;
}

[[noreturn]] void Throw(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// So that a peer that reads nothing holds nobody for long.
void LimitSending(int socket) {
  const timeval patience = {kPatienceSeconds, 0};
  (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

// The console's signals are for its main thread.
void BlockSignals() {
  sigset_t all;
  (void)::sigfillset(&all);
  (void)::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

bool IsReadable(int socket) {
  pollfd waited = {socket, POLLIN, 0};
  return ::poll(&waited, 1, kPatienceMs) == 1;
}

// Adds what has come; false at the end.
bool ReadSome(int socket, std::string* text) {
  char buffer[16 * 1024];
  if (!IsReadable(socket)) return false;
  const ssize_t got = ::recv(socket, buffer, sizeof(buffer), 0);
  if (got > 0) text->append(buffer, static_cast<std::size_t>(got));
  return got > 0;
}

std::size_t ContentLength(const LoopbackRequest& request) {
  const std::string text = request.Header("content-length");
  const bool isNumber = !text.empty() && text.size() < 10 &&
                        text.find_first_not_of("0123456789") == std::string::npos;
  return isNumber ? std::stoul(text) : 0;
}

}  // namespace

LoopbackServer::LoopbackServer(int type, Serve serve)
    : m_socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0)), m_stop(::eventfd(0, EFD_CLOEXEC)) {
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (m_socket < 0 || m_stop < 0 || ::bind(m_socket, generic, size) != 0 ||
      (type == SOCK_STREAM && ::listen(m_socket, SOMAXCONN) != 0) ||
      ::getsockname(m_socket, generic, &size) != 0) {
    Throw("cannot serve on loopback");
  }
  m_port = ::ntohs(address.sin_port);
  m_thread = std::thread([this, type, serve = std::move(serve)] { Run(type, serve); });
}

LoopbackServer::~LoopbackServer() {
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_isOver = true;
    if (m_client >= 0) (void)::shutdown(m_client, SHUT_RDWR);
  }
  const std::uint64_t one = 1;
  (void)!::write(m_stop, &one, sizeof(one));
  m_thread.join();
  (void)::close(m_stop);
  (void)::close(m_socket);
}

void LoopbackServer::Run(int type, const Serve& serve) {
  BlockSignals();
  for (;;) {
    pollfd waited[] = {{m_stop, POLLIN, 0}, {m_socket, POLLIN, 0}};
    if (::poll(waited, 2, kNone) < 0) continue;
    if (waited[0].revents != 0) return;
    if (type == SOCK_DGRAM) {
      serve(m_socket);
      continue;
    }
    const int client = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) ServeClient(client, serve);
  }
}

void LoopbackServer::ServeClient(int client, const Serve& serve) {
  LimitSending(client);
  bool isServed = false;
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    isServed = !m_isOver;
    if (isServed) m_client = client;
  }
  if (isServed) serve(client);
  const std::lock_guard<std::mutex> hold(m_lock);
  m_client = kNone;
  (void)::close(client);
}

std::string LoopbackRequest::Header(const std::string& name) const {
  const std::string line = "\n" + name + ":";
  const std::size_t at = headers.find(line);
  if (at == std::string::npos) return "";
  const std::size_t begin = headers.find_first_not_of(' ', at + line.size());
  return headers.substr(begin, headers.find('\r', begin) - begin);
}

bool ReadRequest(int socket, LoopbackRequest* request) {
  std::string text;
  std::size_t end = std::string::npos;
  while ((end = text.find(kEndOfHeaders)) == std::string::npos) {
    if (text.size() > kHeaderBytes || !ReadSome(socket, &text)) return false;
  }
  const std::size_t afterMethod = text.find(' ');
  const std::size_t afterTarget = text.find(' ', afterMethod + 1);
  const std::size_t firstLine = text.find('\n');
  if (afterTarget == std::string::npos || afterTarget > firstLine) return false;
  request->method = text.substr(0, afterMethod);
  request->target = text.substr(afterMethod + 1, afterTarget - afterMethod - 1);
  request->headers = text.substr(firstLine, end + 2 - firstLine);
  // Names alone would do, but the values that are looked for are numbers, and compared elsewhere.
  std::string& headers = request->headers;
  for (std::size_t at = 0; at < headers.size(); at = headers.find('\n', at + 1)) {
    const std::size_t colon = std::min(headers.find(':', at), headers.size());
    std::transform(headers.begin() + static_cast<std::ptrdiff_t>(at),
                   headers.begin() + static_cast<std::ptrdiff_t>(colon),
                   headers.begin() + static_cast<std::ptrdiff_t>(at),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  }
  request->body = text.substr(end + 4);
  const std::size_t length = ContentLength(*request);
  if (length > kBodyBytes) return false;
  while (request->body.size() < length) {
    if (!ReadSome(socket, &request->body)) return false;
  }
  return true;
}

bool SendAll(int socket, const std::string& data) {
  for (std::size_t sent = 0; sent < data.size();) {
    const ssize_t now = ::send(socket, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (now <= 0) return false;
    sent += static_cast<std::size_t>(now);
  }
  return true;
}

void SendAnswer(int socket, const std::string& status, const std::string& headers,
                const std::string& body) {
  (void)SendAll(socket, "HTTP/1.1 " + status + "\r\n" + headers + "Connection: close\r\n" +
                            "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

void Relay(int one, int other) {
  for (;;) {
    pollfd waited[] = {{one, POLLIN, 0}, {other, POLLIN, 0}};
    if (::poll(waited, 2, kPatienceMs) <= 0) return;
    for (int i = 0; i < 2; ++i) {
      if (waited[i].revents == 0) continue;
      std::string some;
      if (!ReadSome(waited[i].fd, &some) || !SendAll(waited[1 - i].fd, some)) return;
    }
  }
}

int ConnectLoopback(std::uint16_t port) {
  const int connected = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = LoopbackAddress(port);
  if (connected < 0) return kNone;
  LimitSending(connected);
  if (::connect(connected, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return connected;
  }
  (void)::close(connected);
  return kNone;
}

}  // namespace zelctl
