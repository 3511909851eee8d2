#include "Console.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>

#include "CommonUtil.h"
#include "ExplainCommand.h"
#include "History.h"
#include "JsonText.h"
#include "LineEditor.h"
#include "Loopback.h"
#include "MessageTexts.h"
#include "Options.h"
#include "Report.h"
#include "SampleReports.h"
#include "Secrets.h"
#include "Text.h"
#include "publicInc/CommonUtilEntry.h"

namespace zelctl {
namespace {

constexpr char kBlanks[] = " \t\r";
constexpr char kSampleReports[] = "!reports";
constexpr char kPasswordVariable[] = "ZEL_PROXY_PASSWORD";
constexpr char kReplyKey[] = "rsp";
constexpr char kNotifyKey[] = "notify";
constexpr char kResultKey[] = "result";
constexpr std::size_t kMostUnfoldable = 200;
constexpr std::size_t kHelpIndent = 2;
constexpr std::chrono::milliseconds kReplyAtOnce(30);

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

bool IsSkipped(const std::string& line) {
  return line.find_first_not_of(kBlanks) == std::string::npos || line[0] == '#';
}

std::string InMilliseconds(std::chrono::nanoseconds time) {
  std::ostringstream text;
  const double ms = std::chrono::duration<double, std::milli>(time).count();
  text << std::fixed << std::setprecision(ms < 10 ? 1 : 0) << ms << " ms";
  return text.str();
}

std::string KeyTable(const KeyTexts& keys) {
  Table table({{""}, {""}, {""}, {""}});
  for (const KeyText& key : keys) {
    std::string meaning = key.meaning;
    if (*key.values != '\0') meaning += (meaning.empty() ? "" : "; ") + std::string(key.values);
    table.Add(
        {"   ", key.path, std::string(key.type) + (key.isRequired ? ", needed" : ""), meaning});
  }
  const std::string text = table.WrappedText();
  return text.substr(text.find('\n') + 1);  // without titles
}

std::string EventsText() {
  std::string text;
  for (const EventText& event : AllEvents()) {
    text += "notification " + std::to_string(event.number) + ", " + event.name + "\n  " +
            Wrapped(event.about, kHelpIndent) + '\n' + KeyTable(event.keys);
  }
  return text;
}

}  // namespace

struct Console::Command {
  const char* name;
  const char* argument;
  const char* meaning;
  void (Console::*run)(const std::string& argument);
};

const Console::Command Console::kCommands[] = {
    {":help", "[COMMAND]", "this list; of a command the keys of request and reply, and an example",
     &Console::Help},
    {":wait", "[SECONDS]", "wait for the replies that are due; without one, for the next message",
     &Console::Wait},
    {":unfold", "[NUMBER]", "show the last message whole, or the one with this number",
     &Console::Unfold},
    {":explain", "CODE", "what a result code means and what to do", &Console::Explain},
    {":quit", "", "end; so does Ctrl-D", &Console::Quit},
};

Console::Console(const Settings& settings, SignalFlags& signals)
    : m_settings(settings),
      m_signals(signals),
      m_painter(settings.isColourful),
      m_session(settings.timeout, signals.interrupted,
                [this](const Arrival& arrival) { return Show(arrival); }) {}

Console::~Console() = default;

bool Console::PlayLines(LineReader& input) { return m_session.Start() && Finish(ReadLines(input)); }

bool Console::Replay(const std::vector<TranscriptLine>& lines) {
  return m_session.Start() && Finish(SendRecorded(lines));
}

bool Console::Finish(bool isWhole) {
  m_session.Finish();
  return isWhole && m_session.Succeeded();
}

// False when the input could not be read to its end.
bool Console::ReadLines(LineReader& input) {
  using Result = LineReader::Result;
  std::string line;
  while (!m_signals.interrupted && m_session.CanPrint() && !m_quits) {
    const Result result = input.Next(line);
    m_session.PrintArrived();
    if (result == Result::kEnd) return true;
    if (result == Result::kError) return false;
    if (result == Result::kLine && !IsSkipped(line)) Obey(line, input.LineNumber());
  }
  if (m_signals.interrupted) Complain("interrupted");
  return m_quits;
}

bool Console::SendRecorded(const std::vector<TranscriptLine>& lines) {
  const char* const password = std::getenv(kPasswordVariable);
  const Session::Clock::time_point begin = Session::Clock::now();
  for (const TranscriptLine& line : lines) {
    if (!line.isSent) continue;
    if (!m_session.PassTime(begin + line.at)) {
      Complain("interrupted");
      return false;
    }
    if (!m_session.CanPrint()) return false;
    std::string text = line.text;
    if (const std::size_t hidden = CountHidden(text); hidden != 0) {
      const std::string begins = "line " + std::to_string(line.number) + ": " +
                                 Counted(hidden, "password") + " replaced in the record; ";
      if (password != nullptr) text = FillHidden(text, password);
      Complain(begins + (password != nullptr ? std::string(kPasswordVariable) + " is sent"
                                             : std::string(kHiddenMark) + " is sent, set " +
                                                   kPasswordVariable + " to send another"));
    }
    if (text == kSampleReports) {
      SendSampleReports();
    } else {
      m_session.Post(m_settings.data.Expand(Recorded(text)), line.number);
    }
  }
  if (m_session.IsIdle() || m_session.Await(m_session.Timeout())) return true;
  m_session.Fail(Counted(m_session.Outstanding(), "request") + " without a reply");
  return false;
}

bool Console::Converse() {
  if (!m_session.Start()) return false;
  History history;
  const LineEditor::Hooks hooks = {
      CommonUtilExportMsgFd(), [this] { m_session.PrintArrived(); },
      [](const std::string& line) { return Complete(line, CommandWords()); }};
  LineEditor editor(hooks, m_signals, history.Lines());
  m_editor = &editor;
  HandleTerminalSignals();
  std::cout << "zelctl " << CommonUtilVersion()
            << ": TAB shows the commands, :help tells more, Ctrl-D ends\n";
  std::string line;
  LineEditor::Result result = LineEditor::Result::kInterrupted;
  while (!m_quits && m_session.CanPrint() && result != LineEditor::Result::kEnd) {
    m_session.PrintArrived();
    result = editor.Read(line);
    if (result != LineEditor::Result::kLine || IsSkipped(line)) continue;
    history.Add(line);
    Obey(line, 0);
  }
  m_editor = nullptr;
  HandleSignals();
  m_signals.interrupted = false;
  const std::size_t open = m_session.Outstanding();
  if (open != 0) m_session.Fail(Counted(open, "request") + " left without a reply");
  return Finish(!m_signals.ended);
}

void Console::Obey(const std::string& line, std::size_t lineNumber) {
  const std::string text = Trimmed(line);
  if (text[0] != ':') return Send(line, lineNumber);
  const std::size_t end = std::min(text.find_first_of(kBlanks), text.size());
  const std::string name = text.substr(0, end);
  for (const Command& command : kCommands) {
    if (name == command.name) return (this->*command.run)(Trimmed(text.substr(end)));
  }
  Refuse(Quoted(name) + " is no command of the console; :help lists them");
}

void Console::Send(const std::string& line, std::size_t lineNumber) {
  const std::string text = Trimmed(line);
  if (text == kSampleReports) {
    if (m_settings.record != nullptr) (void)Recorded(text);
    return SendSampleReports();
  }
  const bool isTyped = m_editor != nullptr;
  if (isTyped && FindRequest(text) != nullptr) {
    return Refuse("press TAB behind " + Quoted(text) + " to get its request, or type :help " +
                  text);
  }
  if (isTyped && std::isalpha(static_cast<unsigned char>(text[0])) != 0) {
    return Refuse(Quoted(text) + " is no request; :help lists commands, TAB completes one");
  }
  const std::string request = m_settings.data.Expand(Recorded(FillPlaces(line, m_settings.places)));
  isTyped ? m_session.Post(request, lineNumber) : m_session.Play(request, lineNumber);
  // A reply that comes at once stands above the next prompt.
  if (isTyped) (void)m_session.PassTime(Session::Clock::now() + kReplyAtOnce);
}

std::string Console::Recorded(const std::string& line) {
  if (m_settings.record != nullptr && !m_settings.record->Sent(line)) {
    m_session.Fail("cannot write the record");
  }
  return line;
}

bool Console::Show(const Arrival& arrival) {
  if (m_settings.record != nullptr && !m_settings.record->Received(arrival.text)) {
    m_session.Fail("cannot write the record");
  }
  if (m_editor != nullptr) {
    ShowFolded(arrival);
  } else {
    std::cout << (m_settings.isColourful ? m_painter.OneLine(arrival.message)
                                         : OnOneLine(arrival.message)) +
                     '\n'
              << std::flush;
  }
  return std::cout.good();
}

void Console::ShowFolded(const Arrival& arrival) {
  m_editor->MakeRoom();
  ++m_count;
  m_shown.push_back(arrival.message);
  if (m_shown.size() > kMostUnfoldable) m_shown.pop_front();
  bool isFolded = false;
  const std::string text = m_painter.Folded(arrival.message, LineEditor::Columns() - 1, isFolded);
  std::cout << Heading(arrival) << '\n' << text << '\n';
  if (isFolded) {
    std::cout << m_painter.Paint(Colour::kFaint,
                                 ":unfold " + std::to_string(m_count) + " shows it whole")
              << '\n';
  }
  std::cout << std::flush;
}

// What came, in words: "[3] 11 GetRegInfo: ok, 0.4 ms".
std::string Console::Heading(const Arrival& arrival) const {
  const std::string number = m_painter.Paint(Colour::kFaint, "[" + std::to_string(m_count) + "] ");
  const Json::Value& message = arrival.message;
  if (const auto event = UnsignedMember(message, kNotifyKey)) {
    const EventText* const text = FindEvent(*event);
    return number + m_painter.Paint(Colour::kEvent, "notification " + std::to_string(*event)) +
           (text == nullptr ? "" : std::string(": ") + text->about);
  }
  const auto reply = UnsignedMember(message, kReplyKey);
  if (!reply) return number + "detection: " + Verdict(message[kResultKey]);
  const RequestText* const request = FindRequest(*reply);
  std::string heading = number + "reply to " + std::to_string(*reply);
  if (request != nullptr) heading += std::string(" ") + request->name;
  heading += ": " + Verdict(message[kResultKey]);
  if (arrival.took)
    heading += m_painter.Paint(Colour::kFaint, ", " + InMilliseconds(*arrival.took));
  return heading;
}

std::string Console::Verdict(const Json::Value& result) const {
  if (result == 0) return m_painter.Paint(Colour::kGood, "ok");
  const std::string code = result.isIntegral() ? result.asString() : "unknown";
  return m_painter.Paint(Colour::kBad, "result " + code) +
         m_painter.Paint(Colour::kFaint, ", :explain " + code);
}

// A person tries again; a session that was written beforehand has failed.
void Console::Refuse(const std::string& remark) {
  m_editor != nullptr ? Complain(remark) : m_session.Fail(remark);
}

void Console::Help(const std::string& argument) {
  if (!argument.empty()) return HelpRequest(argument);
  Table table({{"CMD", Table::Align::kRight}, {"NAME"}, {"WHAT IT DOES"}});
  for (const RequestText& request : AllRequests()) {
    table.Add({std::to_string(request.number), request.name, request.title});
  }
  Table own({{"CONSOLE"}, {""}, {""}});
  for (const Command& command : kCommands) {
    own.Add({command.name, command.argument, command.meaning});
  }
  std::cout << table.Text() << '\n'
            << own.WrappedText()
            << "\nA number or a name and TAB give the request to edit; TAB goes on with keys and\n"
               "values. :help 6 tells its keys, :help notify the notifications. Begin with 1,\n"
               "which initialises.\n"
            << std::flush;
}

void Console::HelpRequest(const std::string& argument) {
  if (argument == kNotifyKey) {
    std::cout << EventsText() << std::flush;
    return;
  }
  const RequestText* const request = FindRequest(argument);
  if (request == nullptr) {
    return Refuse(Quoted(argument) + " is no command; :help lists their numbers and names");
  }
  std::cout << request->number << ' ' << request->name << ": " << request->title << '\n';
  if (*request->about != '\0') std::cout << "  " << Wrapped(request->about, kHelpIndent) << '\n';
  std::cout << "request\n" << KeyTable(request->keys) << "reply: " << request->reply << '\n';
  if (std::string(request->reply).compare(0, 5, "never") != 0) {
    std::cout << KeyTable(request->replyKeys);
  }
  std::cout << "example\n  " << request->example << '\n' << std::flush;
}

void Console::Wait(const std::string& argument) {
  std::chrono::nanoseconds atMost = m_session.Timeout();
  if (!argument.empty()) {
    try {
      atMost = ParseSeconds(":wait", argument);
    } catch (const UsageError& error) {
      return Refuse(error.what());
    }
  }
  if (m_session.Await(atMost)) return;
  const std::size_t open = m_session.Outstanding();
  const bool isInterrupted = m_editor != nullptr && m_signals.interrupted.exchange(false);
  const std::string what =
      open == 0
          ? "no message came"
          : std::to_string(open) + (open == 1 ? " reply is still due" : " replies are still due");
  const std::string remark = isInterrupted ? "stopped waiting; " + what : what;
  open == 0 ? Complain(remark) : Refuse(remark);
}

void Console::Unfold(const std::string& argument) {
  std::size_t number = m_count;
  const char* const end = argument.data() + argument.size();
  const auto [rest, error] = std::from_chars(argument.data(), end, number);
  const bool isNumber = argument.empty() || (error == std::errc() && rest == end);
  const std::size_t gone = m_count - m_shown.size();
  if (!isNumber || number <= gone || number > m_count) {
    return Refuse(m_shown.empty()
                      ? "there is no message yet to unfold"
                      : ":unfold needs the number of a message, " + std::to_string(gone + 1) +
                            " to " + std::to_string(m_count));
  }
  std::cout << m_painter.Whole(m_shown[number - gone - 1]) << '\n' << std::flush;
}

void Console::Explain(const std::string& argument) {
  if (argument.empty()) return Refuse(":explain needs a result code, such as 411000002");
  (void)ExplainCode({"--", argument}, m_signals.interrupted);  // has said why it cannot
}

void Console::Quit(const std::string& argument) {
  if (!argument.empty()) return Refuse(":quit stands alone");
  m_quits = true;
}

std::vector<Candidate> Console::CommandWords() {
  std::vector<Candidate> words;
  for (const Command& command : kCommands) {
    words.push_back({command.name, command.argument, command.meaning});
  }
  return words;
}

}  // namespace zelctl
