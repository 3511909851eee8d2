// One conversation with the library through its plain entry points: hands requests in, prints
// what comes back, and knows which requests still wait for their reply.
//
// Used by one thread, which is the only one that imports and exports messages.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include <json/value.h>

#include "Request.h"

namespace zelctl {

// A reply or notification.
struct Arrival {
  const std::string& text;
  const Json::Value& message;
  std::optional<std::chrono::nanoseconds> took;  // of a reply, since its request
};

class Session {
 public:
  using Clock = std::chrono::steady_clock;
  // False when nobody takes the output any more.
  using Show = std::function<bool(const Arrival&)>;

  // Waiting for replies ends early once `interrupted` is set. It must outlive the session.
  Session(std::chrono::nanoseconds timeout, const std::atomic<bool>& interrupted, Show show);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // False when the service does not start.
  [[nodiscard]] bool Start();
  // Sends `text` and waits for the reply when one is due. Remarks name the line, 0 for none.
  void Play(const std::string& text, std::size_t lineNumber);
  // Sends `text` without waiting.
  void Post(const std::string& text, std::size_t lineNumber);
  // Waits for all replies that are due; without one, for the next message. False when that took
  // longer than `atMost` or was interrupted.
  bool Await(std::chrono::nanoseconds atMost);
  // Waits until `deadline`, and prints what arrives meanwhile. False when interrupted.
  bool PassTime(Clock::time_point deadline);
  // Nothing is due: no reply, and no end of a detection.
  bool IsIdle() const { return m_open.empty() && m_detections <= 0; }
  // Replies that are due.
  std::size_t Outstanding() const { return m_open.size(); }
  std::chrono::nanoseconds Timeout() const { return m_timeout; }
  // Takes note of a failure, and says so.
  void Fail(const std::string& remark);
  // Prints every message that is there.
  void PrintArrived();
  // Waits until the library has taken all requests, prints the rest and shuts it down.
  void Finish();

  // False once nobody takes the output any more.
  bool CanPrint() const { return m_canPrint; }
  // Everything was sent, answered in time and printed so far.
  bool Succeeded() const { return m_succeeded; }

 private:
  struct OpenRequest {
    unsigned command;
    std::optional<unsigned> sno;
    std::size_t lineNumber;
    bool startsDetection;
    Clock::time_point sentAt;
  };

  bool Send(const std::string& text, Clock::time_point deadline);
  bool IsOpen(std::size_t lineNumber) const;
  void Handle(const char* text);
  // How long the answered request was open.
  std::optional<std::chrono::nanoseconds> CloseAnswered(const Json::Value& reply);
  void NoteDetection(const Json::Value& notification);
  bool IsAwaited(std::size_t lineNumber) const;
  void Print(const Arrival& arrival);

  const std::chrono::nanoseconds m_timeout;
  const std::atomic<bool>& m_interrupted;
  const Show m_show;
  // Requests without their reply, in the order of sending. One whose time is over stays, so
  // that its late reply is not taken for that of a later request.
  std::deque<OpenRequest> m_open;
  // Detections whose last notification has not come; it may come before the reply. One whose time
  // is over still counts, so that its end is not taken for that of a later one.
  int m_detections = 0;
  std::size_t m_detectionLine = 0;  // the request that started the last one
  std::size_t m_shown = 0;          // messages
  bool m_closing = false;           // the closing request is on its way
  bool m_closeAnswered = false;
  bool m_canPrint = true;
  bool m_succeeded = true;
};

}  // namespace zelctl
