#include "Collector.h"

#include <arpa/inet.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <system_error>

#include <gtest/gtest.h>

namespace support {

namespace {

constexpr std::chrono::seconds kDeadline(60);  // only a hang takes that long
constexpr std::size_t kMostUnpacked = 16 * 1024 * 1024;

std::string Unpacked(const std::string& packed) {
  std::string text(kMostUnpacked, '\0');
  z_stream stream = {};
  EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(text.data());
  stream.avail_out = static_cast<uInt>(text.size());
  EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
  text.resize(stream.total_out);
  inflateEnd(&stream);
  return text;
}

std::size_t ContentLength(const std::string& head) {
  constexpr char kName[] = "\r\nContent-Length: ";
  for (std::size_t at = 0; at < head.size(); ++at) {
    if (strncasecmp(head.c_str() + at, kName, sizeof(kName) - 1) == 0) {
      return std::strtoul(head.c_str() + at + sizeof(kName) - 1, nullptr, 10);
    }
  }
  return 0;
}

bool ReadRequest(int connection, Collector::Request* request) {
  std::string bytes;
  std::size_t headEnd = std::string::npos;
  for (char chunk[4096];;) {
    headEnd = headEnd == std::string::npos ? bytes.find("\r\n\r\n") : headEnd;
    if (headEnd != std::string::npos &&
        bytes.size() >= headEnd + 4 + ContentLength(bytes.substr(0, headEnd))) {
      break;
    }
    const ssize_t got = recv(connection, chunk, sizeof(chunk), 0);
    if (got <= 0) return false;
    bytes.append(chunk, static_cast<std::size_t>(got));
  }
  request->head = bytes.substr(0, headEnd);
  request->body = bytes.substr(headEnd + 4);
  if (request->head.find("Content-Encoding: gzip") != std::string::npos) {
    request->body = Unpacked(request->body);
  }
  return true;
}

}  // namespace

Collector::Collector(std::deque<std::string> answers) : m_answers(std::move(answers)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_listener < 0 || bind(m_listener, generic, length) != 0 || listen(m_listener, 8) != 0 ||
      getsockname(m_listener, generic, &length) != 0 || pipe(m_end) != 0) {
    throw std::system_error(errno, std::generic_category(), "collector");
  }
  m_port = ntohs(address.sin_port);
  m_thread = std::thread([this] { Run(); });
}

Collector::~Collector() {
  close(m_end[1]);
  m_thread.join();
  close(m_listener);
  close(m_end[0]);
}

void Collector::Run() {
  for (;;) {
    pollfd waited[] = {{m_listener, POLLIN, 0}, {m_end[0], POLLIN, 0}};
    if (poll(waited, 2, -1) < 0) continue;
    if (waited[1].revents != 0) return;
    const int connection = accept(m_listener, nullptr, nullptr);
    if (connection < 0) continue;
    Serve(connection);
    close(connection);
  }
}

void Collector::Serve(int connection) {
  Request request;
  if (!ReadRequest(connection, &request)) return;
  std::string answer = kAccepted;
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_requests.push_back(request);
    if (!m_answers.empty()) {
      answer = m_answers.front();
      m_answers.pop_front();
    }
    m_changed.notify_all();
  }
  if (answer == kHang) {
    pollfd end = {m_end[0], POLLIN, 0};
    (void)poll(&end, 1, -1);
    return;
  }
  (void)send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
}

std::vector<Collector::Request> Collector::WaitForRequests(std::size_t count) {
  std::unique_lock<std::mutex> hold(m_lock);
  EXPECT_TRUE(m_changed.wait_for(hold, kDeadline, [&] { return m_requests.size() >= count; }));
  return m_requests;
}

}  // namespace support
