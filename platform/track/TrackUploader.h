// The thread that carries events from the spool to a transport, in batches and with patience.
//
// It sleeps until an event waits, sends when the interval is over, when a full batch waits or when
// asked to, and after a failure not before the back-off is over. Batches leave the spool only when
// they were accepted or refused for good; a batch that was sent just before the process was killed
// is sent once more. The thread, not the uploader, keeps spool and transport alive: nobody waits
// for an exchange under way for longer than he wants to.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "track/TrackSpool.h"
#include "track/TrackTransport.h"

struct TrackUploadOptions {
  std::size_t batchEvents = 512;
  std::size_t batchBytes = std::size_t{1024} * 1024;  // of encoded events; a longer one goes alone
  std::chrono::milliseconds interval{60000};
  std::chrono::milliseconds firstBackOff{1000};  // doubled with each failure
  std::chrono::milliseconds longestWait{300000};
  // Called on the thread, with no lock held, when a batch was given up or is not taken.
  void (*onProblem)(const std::string& text) = nullptr;
};

class TrackUploader {
 public:
  TrackUploader(std::shared_ptr<TrackSpool> spool, std::shared_ptr<TrackTransport> transport,
                const TrackUploadOptions& options);
  TrackUploader(const TrackUploader&) = delete;
  TrackUploader& operator=(const TrackUploader&) = delete;
  ~TrackUploader();  // stops without waiting

  // All of these: any thread, at once.
  void Request();
  void EventAdded(std::uint64_t pending);
  // Sends what waits unless a failure is being waited out, and ends the thread. False when that
  // takes longer than `patience`: the thread then ends by itself.
  bool Stop(std::chrono::milliseconds patience);

 private:
  class Work;
  const std::shared_ptr<Work> m_work;
};
