// What signals ask for.
#pragma once

#include <atomic>
#include <stdexcept>
#include <string>

namespace zelctl {

struct SignalFlags {
  std::atomic<bool> interrupted{false};  // end, or in a console: drop the line, stop waiting
  std::atomic<bool> ended{false};        // end, also in a console
  std::atomic<bool> resized{false};      // the terminal
  std::atomic<bool> resumed{false};      // after a stop
};

// Of the process.
SignalFlags& Signals();

// What was begun is given up; temporary copies go on the way out.
class Interrupted : public std::runtime_error {
 public:
  explicit Interrupted(const std::string& more = "") : std::runtime_error("interrupted" + more) {}
};

void ThrowIfInterrupted();

// The first SIGINT or SIGTERM sets `interrupted`, a second one ends the process at once. Output
// that nobody reads any more is an error of the write, not the end of the process.
void HandleSignals();

// For a console on a terminal: every SIGINT sets `interrupted`; SIGTERM and SIGHUP set `ended` too.
void HandleTerminalSignals();

}  // namespace zelctl
