// The console: requests and commands of its own, such as ":help", line by line.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json/value.h>

#include "Completion.h"
#include "DataDirectory.h"
#include "LineReader.h"
#include "Painter.h"
#include "Session.h"
#include "Signals.h"
#include "Transcript.h"

namespace zelctl {

class LineEditor;

// Used by one thread.
class Console {
 public:
  struct Settings {
    const DataDirectory& data;
    const std::map<std::string, std::string>& places;
    TranscriptWriter* record = nullptr;  // none
    bool isColourful = false;
    std::chrono::nanoseconds timeout;
  };

  Console(const Settings& settings, SignalFlags& signals);
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Each starts the service, plays its input, ends the service, and returns whether everything was
  // sent, answered in time and printed.
  // Line after line, each answered before the next is sent.
  bool PlayLines(LineReader& input);
  // What was sent then, at the same times.
  bool Replay(const std::vector<TranscriptLine>& lines);
  // A person at a terminal, who may go on while replies are due.
  bool Converse();

 private:
  struct Command;
  static const Command kCommands[];

  bool ReadLines(LineReader& input);
  bool SendRecorded(const std::vector<TranscriptLine>& lines);
  bool Finish(bool isWhole);
  // Does what a line of its own asks for.
  void Obey(const std::string& line, std::size_t lineNumber);
  void Send(const std::string& line, std::size_t lineNumber);
  // As it goes to the library.
  std::string Recorded(const std::string& line);
  bool Show(const Arrival& arrival);
  void ShowFolded(const Arrival& arrival);
  std::string Heading(const Arrival& arrival) const;
  std::string Verdict(const Json::Value& result) const;
  void Refuse(const std::string& remark);

  void Help(const std::string& argument);
  void HelpRequest(const std::string& argument);
  void Wait(const std::string& argument);
  void Unfold(const std::string& argument);
  void Explain(const std::string& argument);
  void Quit(const std::string& argument);

  static std::vector<Candidate> CommandWords();

  const Settings m_settings;
  SignalFlags& m_signals;
  const Painter m_painter;
  Session m_session;
  LineEditor* m_editor = nullptr;   // while a person talks
  std::deque<Json::Value> m_shown;  // the last messages, for unfolding
  std::size_t m_count = 0;          // of all messages shown
  bool m_quits = false;
};

}  // namespace zelctl
