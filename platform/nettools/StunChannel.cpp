#include "nettools/StunChannel.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <openssl/ssl.h>

#include "crypto/openssl_handle.h"
#include "prax/descriptor.h"

namespace {

using std::chrono::ceil;
using std::chrono::milliseconds;
using SslCtx = std::unique_ptr<SSL_CTX, ReleaseWith<SSL_CTX_free>>;
using Ssl = std::unique_ptr<SSL, ReleaseWith<SSL_free>>;

class Socket {
 public:
  Socket(int family, int type)
      : m_descriptor(::socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}

  int Fd() const { return m_descriptor.Get(); }
  bool IsOpen() const { return m_descriptor.IsOpen(); }

  // False when the time is over first. An error of the socket counts as ready: the next call on
  // it tells.
  bool WaitFor(short events, DetectClock::time_point until) const {
    for (;;) {
      const auto left = ceil<milliseconds>(until - DetectClock::now()).count();
      pollfd waited = {Fd(), events, 0};
      const int ready = ::poll(&waited, 1, static_cast<int>(std::max<long long>(left, 0)));
      if (ready > 0) return true;
      if (ready == 0 || errno != EINTR) return false;
    }
  }

  // Uses the first local address of the server's family, if there is one on this machine.
  void BindTo(const std::vector<std::string>& addresses, int family) const {
    for (const std::string& text : addresses) {
      sockaddr_in v4{};
      sockaddr_in6 v6{};
      v4.sin_family = AF_INET;
      v6.sin6_family = AF_INET6;
      if (family == AF_INET && ::inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
        (void)::bind(Fd(), reinterpret_cast<const sockaddr*>(&v4), sizeof(v4));
        return;
      }
      if (family == AF_INET6 && ::inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) {
        (void)::bind(Fd(), reinterpret_cast<const sockaddr*>(&v6), sizeof(v6));
        return;
      }
    }
  }

  int Connect(const DetectAddress& address) const {
    return ::connect(Fd(), reinterpret_cast<const sockaddr*>(&address.storage), address.length);
  }

 private:
  const prax::Descriptor m_descriptor;
};

class UdpChannel : public StunChannel {
 public:
  UdpChannel(const DetectAddress& address, const DetectOptions& options)
      : m_socket(address.storage.ss_family, SOCK_DGRAM) {
    if (!m_socket.IsOpen()) return;
    m_socket.BindTo(options.localAddress, address.storage.ss_family);
    m_isConnected = m_socket.Connect(address) == 0;
  }
  bool IsConnected() const { return m_isConnected; }

  // A refusal by an earlier packet's target comes up here or below; a later packet may get
  // through all the same, so neither ends the measurement.
  bool Send(const StunRequest& request) override {
    (void)::send(m_socket.Fd(), request.data(), request.size(), 0);
    return true;
  }

  int Receive(DetectClock::time_point until, unsigned char (&message)[kMessageBytes]) override {
    while (m_socket.WaitFor(POLLIN, until)) {
      // With the full length, so that a message that is cut off is not taken for a short one.
      const ssize_t size = ::recv(m_socket.Fd(), message, kMessageBytes, MSG_TRUNC);
      if (size > 0 && static_cast<std::size_t>(size) <= kMessageBytes)
        return static_cast<int>(size);
      if (DetectClock::now() >= until) break;
    }
    return 0;
  }

 private:
  const Socket m_socket;
  bool m_isConnected = false;
};

SslCtx MakeContext(const std::string& caFile) {
  SslCtx context(::SSL_CTX_new(::TLS_client_method()));
  if (!context) return nullptr;
  ::SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  const int loaded = caFile.empty()
                         ? ::SSL_CTX_set_default_verify_paths(context.get())
                         : ::SSL_CTX_load_verify_locations(context.get(), caFile.c_str(), nullptr);
  return loaded == 1 ? std::move(context) : nullptr;
}

// The certificate must name what was asked for (RFC 6125); only names go into the greeting.
bool ExpectHost(SSL* ssl, const std::string& host) {
  in6_addr ignored;
  if (::inet_pton(AF_INET, host.c_str(), &ignored) == 1 ||
      ::inet_pton(AF_INET6, host.c_str(), &ignored) == 1) {
    return ::X509_VERIFY_PARAM_set1_ip_asc(::SSL_get0_param(ssl), host.c_str()) == 1;
  }
  return ::SSL_set1_host(ssl, host.c_str()) == 1 &&
         ::SSL_set_tlsext_host_name(ssl, host.c_str()) == 1;
}

// STUN messages one after the other in a stream (RFC 8489 section 6.2.2).
class TlsChannel : public StunChannel {
 public:
  explicit TlsChannel(int family) : m_socket(family, SOCK_STREAM) {}

  // 0 or a DetectCode.
  int Open(const DetectAddress& address, const std::string& host, const DetectOptions& options,
           DetectClock::time_point deadline) {
    if (!m_socket.IsOpen()) return kDetectNoAnswer;
    m_socket.BindTo(options.localAddress, address.storage.ss_family);
    const int on = 1;
    (void)::setsockopt(m_socket.Fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (!ConnectTcp(address, deadline)) return kDetectNoAnswer;
    m_context = MakeContext(options.caFile);
    if (m_context) m_ssl.reset(::SSL_new(m_context.get()));
    if (!m_ssl || ::SSL_set_fd(m_ssl.get(), m_socket.Fd()) != 1 || !ExpectHost(m_ssl.get(), host)) {
      return kDetectTlsFailed;
    }
    m_until = m_deadline = deadline;
    return Drive([this] { return ::SSL_connect(m_ssl.get()); }) > 0 ? 0 : kDetectTlsFailed;
  }

  bool Send(const StunRequest& request) override {
    m_until = std::min(DetectClock::now() + kSendPatience, m_deadline);
    return Drive([&] {
             return ::SSL_write(m_ssl.get(), request.data(), static_cast<int>(request.size()));
           }) > 0;
  }

  int Receive(DetectClock::time_point until, unsigned char (&message)[kMessageBytes]) override {
    m_until = until;
    for (;;) {
      if (const int size = TakeMessage(message); size != 0) return size;
      const int room = static_cast<int>(sizeof(m_stream) - m_filled);
      const int got = Drive([&] { return ::SSL_read(m_ssl.get(), m_stream + m_filled, room); });
      if (got <= 0) return DetectClock::now() >= until ? 0 : -1;
      m_filled += static_cast<std::size_t>(got);
    }
  }

 private:
  // A peer that takes no 20 bytes for so long has stopped reading.
  static constexpr milliseconds kSendPatience{1000};

  bool ConnectTcp(const DetectAddress& address, DetectClock::time_point deadline) const {
    if (m_socket.Connect(address) == 0) return true;
    if (errno != EINPROGRESS || !m_socket.WaitFor(POLLOUT, deadline)) return false;
    int error = 0;
    socklen_t size = sizeof(error);
    return ::getsockopt(m_socket.Fd(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
  }

  // Repeats a call while the socket keeps it waiting, until it ends or the time is over.
  template <class Call>
  int Drive(Call call) {
    const OpenSslScope scope;
    for (;;) {
      const int result = call();
      if (result > 0) return result;
      const int error = ::SSL_get_error(m_ssl.get(), result);
      const short events = error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
      const bool waits = error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
      if (!waits || !m_socket.WaitFor(events, m_until)) return -1;
    }
  }

  // Moves the first message out of the stream: its size, 0 when it is not whole yet, negative when
  // the stream holds no message.
  int TakeMessage(unsigned char (&message)[kMessageBytes]) {
    if (m_filled < kStunHeaderBytes) return 0;
    const std::size_t size = StunMessageSize(m_stream);
    if (size == 0 || size > kMessageBytes) return -1;
    if (m_filled < size) return 0;
    std::memcpy(message, m_stream, size);
    std::memmove(m_stream, m_stream + size, m_filled - size);
    m_filled -= size;
    return static_cast<int>(size);
  }

  const Socket m_socket;
  SslCtx m_context;
  Ssl m_ssl;
  DetectClock::time_point m_deadline;
  DetectClock::time_point m_until;  // of the call under way
  unsigned char m_stream[2 * kMessageBytes] = {};
  std::size_t m_filled = 0;
};

}  // namespace

std::unique_ptr<StunChannel> OpenUdpChannel(const DetectAddress& address,
                                            const DetectOptions& options, int* code) {
  auto channel = std::make_unique<UdpChannel>(address, options);
  *code = channel->IsConnected() ? 0 : kDetectNoAnswer;
  if (*code != 0) return nullptr;
  return channel;
}

std::unique_ptr<StunChannel> OpenTlsChannel(const DetectAddress& address, const std::string& host,
                                            const DetectOptions& options,
                                            DetectClock::time_point deadline, int* code) {
  const OpenSslScope scope;
  auto channel = std::make_unique<TlsChannel>(address.storage.ss_family);
  *code = channel->Open(address, host, options, deadline);
  if (*code != 0) return nullptr;
  return channel;
}
