// An HTTP server of the test's own: keeps what it is sent and answers as it is told to.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace support {

class Collector {
 public:
  struct Request {
    std::string head;  // request line and headers
    std::string body;  // unpacked when it was gzip
  };

  // One answer a connection: the bytes of it; kHang answers nothing until the collector ends.
  static constexpr char kHang[] = "hang";
  static constexpr char kAccepted[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";

  explicit Collector(std::deque<std::string> answers = {});  // then kAccepted
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_port); }
  std::vector<Request> WaitForRequests(std::size_t count);

 private:
  void Run();
  void Serve(int connection);

  int m_listener = -1;
  int m_end[2] = {-1, -1};  // readable once the collector ends
  std::uint16_t m_port = 0;
  std::mutex m_lock;  // guards the rest
  std::condition_variable m_changed;
  std::deque<std::string> m_answers;
  std::vector<Request> m_requests;
  std::thread m_thread;
};

}  // namespace support
