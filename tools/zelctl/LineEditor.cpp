#include "LineEditor.h"

#include <histedit.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "History.h"
#include "Report.h"
#include "Text.h"

namespace zelctl {
namespace {

constexpr wchar_t kPrompt[] = L"zel> ";
constexpr std::size_t kPromptColumns = std::size(kPrompt) - 1;
constexpr int kLookMs = 100;  // between two looks for a signal
constexpr std::size_t kUsualColumns = 80;
constexpr int kOneCharacter = 1;
constexpr int kFailed = -1;

wchar_t* Prompt(EditLine*) {
  static wchar_t prompt[std::size(kPrompt)];
  return std::wmemcpy(prompt, kPrompt, std::size(kPrompt));
}

LineEditor* EditorOf(EditLine* library) {
  void* editor = nullptr;
  (void)el_wget(library, EL_CLIENTDATA, &editor);
  return static_cast<LineEditor*>(editor);
}

// JSON is UTF-8, whatever the user's language.
void UseUtf8() {
  (void)std::setlocale(LC_CTYPE, "");
  if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") != 0) (void)std::setlocale(LC_CTYPE, "C.UTF-8");
}

std::size_t CharactersIn(const std::string& text, std::size_t bytes) {
  return Width(text.substr(text.size() - bytes));
}

}  // namespace

struct LineEditor::Library {
  EditLine* line = nullptr;
  ::History* history = nullptr;
  std::mbstate_t decoding = {};

  Library() = default;
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() {
    if (line != nullptr) el_end(line);
    if (history != nullptr) history_end(history);
  }

  void Remember(const std::string& text) {
    HistEvent event;
    (void)::history(history, &event, H_ENTER, text.c_str());  // without memory it is not recalled
  }
};

LineEditor::LineEditor(Hooks hooks, SignalFlags& signals, const std::vector<std::string>& history)
    : m_hooks(std::move(hooks)), m_signals(signals), m_library(std::make_unique<Library>()) {
  UseUtf8();
  m_library->line = el_init("zelctl", stdin, stdout, stderr);
  m_library->history = history_init();
  EditLine* const line = m_library->line;
  if (line == nullptr || m_library->history == nullptr) {
    throw std::runtime_error("the terminal cannot be used for editing");
  }
  HistEvent event;
  (void)::history(m_library->history, &event, H_SETSIZE, History::kMostLines);
  (void)::history(m_library->history, &event, H_SETUNIQUE, 1);
  for (const std::string& text : history) m_library->Remember(text);

  using ReadFunction = int (*)(EditLine*, wchar_t*);
  const ReadFunction read = [](EditLine* from, wchar_t* c) {
    return EditorOf(from)->NextCharacter(c);
  };
  using Function = unsigned char (*)(EditLine*, int);
  const Function complete = [](EditLine* from, int) { return EditorOf(from)->CompleteWord(); };
  (void)el_wset(line, EL_CLIENTDATA, static_cast<void*>(this));
  (void)el_wset(line, EL_PROMPT, &Prompt);
  (void)el_wset(line, EL_EDITOR, L"emacs");
  (void)el_set(line, EL_HIST, &::history, m_library->history);
  (void)el_wset(line, EL_GETCFN, read);
  (void)el_wset(line, EL_ADDFN, L"zelctl-complete", L"completes requests", complete);
  (void)el_wset(line, EL_BIND, L"^I", L"zelctl-complete", nullptr);
  (void)el_wset(line, EL_BIND, L"^R", L"em-inc-search-prev", nullptr);
  (void)el_source(line, nullptr);  // the user's own settings, where there are any
}

LineEditor::~LineEditor() = default;

LineEditor::Result LineEditor::Read(std::string& line) {
  m_ending = Result::kEnd;
  m_isEditing = true;
  int count = 0;
  const char* const text = el_gets(m_library->line, &count);
  m_isEditing = false;
  if (text == nullptr || count <= 0) {
    if (m_ending == Result::kInterrupted) std::cout << "^C";
    std::cout << '\n' << std::flush;
    return m_ending;
  }
  line.assign(text, static_cast<std::size_t>(count));
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (line.find_first_not_of(" \t") != std::string::npos) m_library->Remember(line);
  return Result::kLine;
}

// Called by the editing library, which has drawn everything by then.
int LineEditor::NextCharacter(wchar_t* character) {
  for (;;) {
    BringBack();
    if (m_signals.ended || m_signals.interrupted.exchange(false)) {
      m_ending = m_signals.ended ? Result::kEnd : Result::kInterrupted;
      return kFailed;
    }
    if (m_signals.resized.exchange(false)) el_resize(m_library->line);
    if (m_signals.resumed.exchange(false)) {
      (void)el_wset(m_library->line, EL_PREP_TERM, 1);
      (void)el_wset(m_library->line, EL_REFRESH);
    }
    pollfd ready[] = {{STDIN_FILENO, POLLIN, 0}, {m_hooks.fd, POLLIN, 0}};
    if (::poll(ready, std::size(ready), kLookMs) <= 0) continue;
    if (ready[1].revents != 0) m_hooks.onReadable();
    if (ready[0].revents == 0) continue;
    BringBack();
    char byte = 0;
    const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return kFailed;
    if (Decode(byte, character)) return kOneCharacter;
  }
}

// False until the bytes make a character; what never will is dropped.
bool LineEditor::Decode(char byte, wchar_t* character) {
  constexpr auto kInvalid = static_cast<std::size_t>(-1);
  constexpr auto kPartly = static_cast<std::size_t>(-2);
  const std::size_t used = std::mbrtowc(character, &byte, 1, &m_library->decoding);
  if (used == kInvalid) m_library->decoding = {};
  return used != kInvalid && used != kPartly;
}

void LineEditor::MakeRoom() {
  if (!m_isEditing || m_isHidden) return;
  const std::size_t row = CursorRow();
  std::cout << '\r';
  if (row > 0) std::cout << "\033[" << row << 'A';
  std::cout << "\033[J" << std::flush;
  m_isHidden = true;
}

void LineEditor::BringBack() {
  if (!m_isHidden) return;
  m_isHidden = false;
  (void)el_wset(m_library->line, EL_REFRESH);
}

// Below the row of the prompt.
std::size_t LineEditor::CursorRow() const {
  const LineInfoW* const line = el_wline(m_library->line);
  std::size_t column = kPromptColumns;
  for (const wchar_t* at = line->buffer; at < line->cursor; ++at) {
    const int width = ::wcwidth(*at);
    column += width < 0 ? 2 : static_cast<std::size_t>(width);  // as ^X
  }
  return column / Columns();
}

unsigned char LineEditor::CompleteWord() {
  const LineInfo* const info = el_line(m_library->line);
  const std::string before(info->buffer, info->cursor);
  const Completion completion = m_hooks.complete(before);
  if (completion.candidates.empty() && completion.inserted.empty()) return CC_REFRESH_BEEP;
  el_deletestr(m_library->line, static_cast<int>(CharactersIn(before, completion.erased)));
  if (!completion.inserted.empty()) {
    (void)el_insertstr(m_library->line, completion.inserted.c_str());
  }
  if (completion.candidates.empty()) return CC_REFRESH;
  List(completion.candidates);
  return CC_NORM;
}

void LineEditor::List(const std::vector<Candidate>& candidates) {
  MakeRoom();
  Table table({{""}, {""}, {""}});
  for (const Candidate& one : candidates) table.Add({one.text, one.type, one.meaning});
  const std::string text = table.Text();
  std::cout << text.substr(text.find('\n') + 1) << std::flush;  // without titles
  BringBack();
}

std::size_t LineEditor::Columns() {
  winsize size = {};
  const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return isKnown ? size.ws_col : kUsualColumns;
}

}  // namespace zelctl
