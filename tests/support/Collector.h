// An HTTP server of the test's own: keeps what it is sent and answers as it is told to.
#pragma once

#include <sys/socket.h>
#include <zlib.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "LoopbackServer.h"

namespace support {

class Collector {
 public:
  // One answer a connection: the bytes of it.
  static constexpr char kAccepted[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";

  explicit Collector(std::deque<std::string> answers = {})  // then kAccepted
      : m_answers(std::move(answers)),
        m_server(SOCK_STREAM, [this](int client) { Serve(client); }) {}

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_server.Port()); }
  // The bodies are unpacked when they were gzip.
  std::vector<zelctl::LoopbackRequest> WaitForRequests(std::size_t count) {
    std::unique_lock<std::mutex> hold(m_lock);
    m_changed.wait(hold, [&] { return m_requests.size() >= count; });
    return m_requests;
  }

 private:
  static std::string Unpacked(const std::string& packed) {
    std::string text(1024 * 1024, '\0');
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

  void Serve(int client) {
    zelctl::LoopbackRequest request;
    if (!zelctl::ReadRequest(client, &request)) return;
    if (request.Header("content-encoding") == "gzip") request.body = Unpacked(request.body);
    std::string answer = kAccepted;
    {
      const std::lock_guard<std::mutex> hold(m_lock);
      m_requests.push_back(std::move(request));
      if (!m_answers.empty()) {
        answer = m_answers.front();
        m_answers.pop_front();
      }
      m_changed.notify_all();
    }
    (void)zelctl::SendAll(client, answer);
  }

  std::mutex m_lock;
  std::condition_variable m_changed;
  std::deque<std::string> m_answers;
  std::vector<zelctl::LoopbackRequest> m_requests;
  zelctl::LoopbackServer m_server;
};

}  // namespace support
