// Reads lines from the terminal with editing, history and completion, and makes room for what is
// printed meanwhile. One at a time in a process.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Completion.h"
#include "Signals.h"

namespace zelctl {

class LineEditor {
 public:
  enum class Result { kLine, kInterrupted, kEnd };

  struct Hooks {
    int fd = -1;                       // readable when `onReadable` has something to do
    std::function<void()> onReadable;  // may print, after MakeRoom
    std::function<Completion(const std::string& beforeCursor)> complete;
  };

  // Throws std::runtime_error for a terminal that cannot be used.
  LineEditor(Hooks hooks, SignalFlags& signals, const std::vector<std::string>& history);
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // Blocks until a line is complete, or SIGINT drops it.
  Result Read(std::string& line);
  // Takes the line that is being edited, if any, off the screen until something happens next.
  void MakeRoom();
  // Of the terminal, now.
  static std::size_t Columns();

 private:
  struct Library;  // what the editing library needs

  int NextCharacter(wchar_t* character);
  bool Decode(char byte, wchar_t* character);
  void BringBack();
  unsigned char CompleteWord();
  void List(const std::vector<Candidate>& candidates);
  std::size_t CursorRow() const;

  const Hooks m_hooks;
  SignalFlags& m_signals;
  std::unique_ptr<Library> m_library;
  bool m_isEditing = false;
  bool m_isHidden = false;
  Result m_ending = Result::kEnd;  // of a line that is not completed
};

}  // namespace zelctl
