// Writes events to "ut_events.jsonl", one JSON object a line, rotated like a log file. For where
// no collector is named. What may describe the user is left out, since the file is no secret.
#pragma once

#include <memory>
#include <mutex>

#include "logger/LogFile.h"
#include "track/TrackTransport.h"

class FileTransport : public TrackTransport {
 public:
  // From the next batch on the events go to `file`. Any thread.
  void Use(std::unique_ptr<LogFile> file);

  std::string Encode(const TrackEvent& event) const override;
  // A line may be in the file twice when a later one of its batch could not be written.
  TrackAnswer Send(const std::vector<std::string>& batch) override;

 private:
  std::mutex m_lock;
  std::unique_ptr<LogFile> m_file;  // guarded by m_lock
};
