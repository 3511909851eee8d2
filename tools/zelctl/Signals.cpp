#include "Signals.h"

#include <signal.h>

namespace zelctl {
namespace {

SignalFlags g_flags;
static_assert(std::atomic<bool>::is_always_lock_free, "written by signal handlers");

void Interrupt(int) { g_flags.interrupted = true; }

void End(int) {
  g_flags.ended = true;
  g_flags.interrupted = true;
}

void Resize(int) { g_flags.resized = true; }

void Resume(int) { g_flags.resumed = true; }

void Handle(int signal, void (*handler)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  (void)sigaction(signal, &action, nullptr);  // fails for signals that do not exist alone
}

}  // namespace

SignalFlags& Signals() { return g_flags; }

void ThrowIfInterrupted() {
  if (g_flags.interrupted) throw Interrupted();
}

void HandleSignals() {
  constexpr int kOnce = static_cast<int>(SA_RESETHAND);
  Handle(SIGINT, Interrupt, kOnce);
  Handle(SIGTERM, Interrupt, kOnce);
  Handle(SIGPIPE, SIG_IGN, 0);
}

void HandleTerminalSignals() {
  Handle(SIGINT, Interrupt, 0);
  Handle(SIGTERM, End, 0);
  Handle(SIGHUP, End, 0);
  Handle(SIGWINCH, Resize, 0);
  Handle(SIGCONT, Resume, 0);
}

}  // namespace zelctl
