// The small state that outlives a process: which session came before, and how far it counted. It is
// kept by another library, through the cache functions that this one registered.
//
// The functions are called on a thread of their own, with no lock held, and not before that
// library's initialisation has ended: the sign for it is the first command that its worker counts
// after the registration. Such a call may never return, so nobody waits for the thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

struct TrackCacheFunctions {
  int (*batchAdd)(const void* entries, int count) = nullptr;
  int (*query)(const char* key, void* out, int* count) = nullptr;
};

// A session and the sequence number that it had reached.
struct TrackMark {
  std::string session;  // as TrackSessionText gives it
  std::uint64_t sequence = 0;
};

class TrackState {
 public:
  using Current = TrackMark (*)();
  using Previous = void (*)(const TrackMark& mark);

  // `current` tells what to keep, `previous` receives what was kept; both run on the thread.
  TrackState(Current current, Previous previous);

  void Register(const TrackCacheFunctions& functions);
  TrackCacheFunctions Registered() const;
  // A command of the registering library's worker has ended.
  void CommandEnded();
  // A session begins: reads what was kept, once it may, and then keeps the current mark up to date.
  void Start();
  // Begins no further call.
  void Stop();

 private:
  class Keeper;

  const Current m_current;
  const Previous m_previous;
  std::atomic<bool> m_awaiting{false};  // a registration has not seen a command yet
  mutable std::mutex m_lock;            // guards the rest; a leaf
  TrackCacheFunctions m_functions;
  bool m_ready = false;
  std::shared_ptr<Keeper> m_keeper;  // null while there is no session
};
