// A conversation as a file: one JSON object a line, with its time, direction and text.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "Options.h"
#include "Secrets.h"

namespace zelctl {

// Writes one. Each line is in the file at once, and holds no password.
class TranscriptWriter {
 public:
  // Makes `path`, with mode 0600. Throws UsageError, also when there is one already.
  explicit TranscriptWriter(const std::string& path);
  ~TranscriptWriter();
  TranscriptWriter(const TranscriptWriter&) = delete;
  TranscriptWriter& operator=(const TranscriptWriter&) = delete;

  // False when the line could not be written.
  bool Sent(const std::string& text) { return Write("sent", text); }
  bool Received(const std::string& text) { return Write("received", text); }

 private:
  bool Write(const char* direction, const std::string& text);

  const int m_fd;
  const std::chrono::steady_clock::time_point m_begin;
  SecretHider m_hider;
};

struct TranscriptLine {
  std::chrono::milliseconds at;  // since the beginning
  bool isSent;
  std::string text;
  std::size_t number;  // in the file
};

// The whole conversation. Throws UsageError, which names the line that is wrong.
std::vector<TranscriptLine> ReadTranscript(const std::string& path);

}  // namespace zelctl
