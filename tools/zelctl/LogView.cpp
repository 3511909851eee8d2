#include "LogView.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include <json/value.h>

#include "JsonText.h"
#include "ModuleFile.h"
#include "Options.h"
#include "Text.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kFollowPoll(50);
constexpr char kTimeShape[] = "dddd-dd-dd dd:dd:dd.ddd";
constexpr std::size_t kTimeLength = sizeof(kTimeShape) - 1;
constexpr char kLevels[] = "EWID";  // the most severe first

struct View {
  std::string directory, module, since, until;
  char level = 'D';
  bool follows = false;
  bool asJson = false;
};

struct Line {
  std::string time, module;
  char level = 'E';  // of a line without a header: never hidden for its level
  std::string text;
};

bool HasShape(const std::string& text, const char* shape, std::size_t length) {
  if (text.size() < length) return false;
  for (std::size_t i = 0; i < length; ++i) {
    const bool isDigit = text[i] >= '0' && text[i] <= '9';
    if (shape[i] == 'd' ? !isDigit : text[i] != shape[i]) return false;
  }
  return true;
}

// "time thread level [module] ..."; what has no such beginning keeps the time of `before`.
Line ParseLine(const std::string& text, const Line& before) {
  Line line;
  line.text = text;
  line.time = before.time;
  line.module = before.module;
  if (!HasShape(text, kTimeShape, kTimeLength)) return line;
  line.time = text.substr(0, kTimeLength);
  const std::size_t open = text.find(" [", kTimeLength);
  const std::size_t close = text.find(']', open);
  if (open == std::string::npos || close == std::string::npos) return line;
  line.level = text[open - 1];
  line.module = text.substr(open + 2, close - open - 2);
  return line;
}

// -1 for no level.
std::ptrdiff_t Severity(char level) {
  const char* const found = level == '\0' ? nullptr : std::strchr(kLevels, level);
  return found == nullptr ? -1 : found - kLevels;
}

bool IsShown(const Line& line, const View& view) {
  if (!view.module.empty() && line.module != view.module) return false;
  if (Severity(line.level) > Severity(view.level)) return false;
  return line.time >= view.since &&
         (view.until.empty() || line.time.substr(0, view.until.size()) <= view.until);
}

View ParseView(const std::vector<std::string>& arguments) {
  View view;
  std::string level = "D";
  const std::map<std::string, std::string*> options = {{"--module", &view.module},
                                                       {"--level", &level},
                                                       {"--since", &view.since},
                                                       {"--until", &view.until}};
  for (auto next = arguments.begin(); next != arguments.end(); ++next) {
    const std::size_t sign = next->find('=');
    const auto option = options.find(next->substr(0, sign));
    if (*next == "-f") {
      view.follows = true;
    } else if (*next == "--json") {
      view.asJson = true;
    } else if (option != options.end()) {
      const bool isJoined = sign != std::string::npos;
      if (!isJoined && ++next == arguments.end()) {
        throw UsageError(option->first + " needs a value; see zelctl logs view --help");
      }
      *option->second = isJoined ? next->substr(sign + 1) : *next;
    } else if (next->empty() || next->front() == '-' || !view.directory.empty()) {
      throw UsageError("logs view does not take " + Quoted(*next) +
                       "; see zelctl logs view --help");
    } else {
      view.directory = *next;
    }
  }
  std::error_code ignored;
  if (!fs::is_directory(view.directory, ignored)) {
    throw UsageError("logs view needs the directory of the logs, not " + Quoted(view.directory));
  }
  if (level.size() != 1 || Severity(level[0]) < 0) throw UsageError("--level needs E, W, I or D");
  for (const std::string& time : {view.since, view.until}) {
    if (time.size() > kTimeLength || !HasShape(time, kTimeShape, time.size())) {
      throw UsageError("a time looks like 2026-11-21 10:39:05.752 or its beginning, not " +
                       Quoted(time));
    }
  }
  view.level = level[0];
  return view;
}

// One file, read line by line.
class Source {
 public:
  explicit Source(const LogFile& log) : m_file(log.path) {}

  bool IsOpen() const { return m_file.is_open(); }
  const Line& Current() const { return m_line; }
  // False at the end.
  bool Advance() {
    std::string text;
    if (!std::getline(m_file, text)) return false;
    m_line = ParseLine(text, m_line);
    return true;
  }

 private:
  std::ifstream m_file;
  Line m_line;
};

struct Counts {
  std::size_t lines = 0;
  std::size_t shown = 0;
};

void Show(const Line& line, const View& view) {
  if (!view.asJson) {
    std::cout << Printable(line.text) << '\n';
    return;
  }
  Json::Value object(Json::objectValue);
  object["time"] = line.time;
  object["module"] = line.module;
  object["level"] = std::string(1, line.level);
  object["text"] = line.text;
  std::cout << OnOneLine(object) << '\n';
}

// The files are merged, each in its own order: lines of the same time stay in the order of the
// files, and no more than a line of each is kept.
Counts ShowMerged(std::vector<Source> sources, const View& view,
                  const std::atomic<bool>& interrupted) {
  Counts counts;
  const auto isEarlier = [](const Source& a, const Source& b) {
    return a.Current().time < b.Current().time;
  };
  while (!sources.empty() && std::cout && !interrupted) {
    const auto first = std::min_element(sources.begin(), sources.end(), isEarlier);
    ++counts.lines;
    if (IsShown(first->Current(), view)) {
      ++counts.shown;
      Show(first->Current(), view);
    }
    if (!first->Advance()) sources.erase(first);
  }
  std::cout.flush();
  return counts;
}

bool Follow(const View& view, FollowedLogs& logs, const std::atomic<bool>& interrupted) {
  std::map<std::string, Line> last;
  while (std::cout && !interrupted) {
    logs.TakeNewLines([&](const std::string& module, const std::string& text) {
      Line& line = last[module] = ParseLine(text.substr(0, text.size() - 1), last[module]);
      if (IsShown(line, view)) Show(line, view);
    });
    std::cout.flush();
    std::this_thread::sleep_for(kFollowPoll);
  }
  return static_cast<bool>(std::cout);
}

// What is missing where nothing is shown.
void TellOfNothing(const View& view, const std::vector<LogFile>& logs, const Counts& counts) {
  std::set<std::string> modules;
  std::string names;
  for (const LogFile& log : logs) {
    if (modules.insert(log.module).second) names += (names.empty() ? "" : ", ") + log.module;
  }
  if (logs.empty()) {
    Complain("no logs in " + Quoted(view.directory) +
             "; name the directory that the client gives as \"log_path\"");
  } else if (counts.lines > 0 && counts.shown == 0) {
    Complain("none of " + Counted(counts.lines, "line") + " is chosen; there are logs of " + names);
  }
}

}  // namespace

bool ViewLogs(const std::vector<std::string>& arguments, const std::atomic<bool>& interrupted) {
  const View view = ParseView(arguments);
  // Opened before the first look: a line that is written meanwhile is shown twice rather than not.
  std::optional<FollowedLogs> followed;
  if (view.follows) followed.emplace(view.directory);
  const std::vector<LogFile> logs = FindLogs(view.directory);
  std::vector<Source> sources;
  bool isWhole = !logs.empty() || view.follows;
  for (const LogFile& log : logs) {
    Source source(log);
    if (!source.IsOpen()) {
      Complain("cannot read " + Quoted(log.path) + ": " + std::strerror(errno));
      isWhole = false;
    } else if (source.Advance()) {
      sources.push_back(std::move(source));
    }
  }
  const Counts counts = ShowMerged(std::move(sources), view, interrupted);
  if (!std::cout) {
    ComplainOfOutput();
    return false;
  }
  if (interrupted) {
    Complain("interrupted");
    return false;
  }
  TellOfNothing(view, logs, counts);
  return view.follows ? Follow(view, *followed, interrupted) : isWhole;
}

}  // namespace zelctl
