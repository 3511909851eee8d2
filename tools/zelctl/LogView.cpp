#include "LogView.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <system_error>
#include <thread>

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
    const auto option = options.find(*next);
    if (*next == "-f") {
      view.follows = true;
    } else if (*next == "--json") {
      view.asJson = true;
    } else if (option != options.end()) {
      if (++next == arguments.end()) throw UsageError(option->first + " needs a value");
      *option->second = *next;
    } else if (next->empty() || next->front() == '-' || !view.directory.empty()) {
      throw UsageError("logs view does not take " + Quoted(*next) + "; see zelctl --help");
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

std::vector<Line> ReadAll(const std::string& directory) {
  std::vector<Line> lines;
  std::error_code vanished;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, vanished)) {
    if (entry.path().extension() != ".txt" || !entry.is_regular_file(vanished)) continue;
    std::ifstream file(entry.path());
    Line line;
    for (std::string text; std::getline(file, text);) {
      line = ParseLine(text, line);
      lines.push_back(line);
    }
  }
  // Stable: lines of the same time stay in the order of their file.
  std::stable_sort(lines.begin(), lines.end(),
                   [](const Line& a, const Line& b) { return a.time < b.time; });
  return lines;
}

void Show(const Line& line, const View& view) {
  if (!IsShown(line, view)) return;
  if (!view.asJson) {
    std::cout << line.text << '\n';
    return;
  }
  Json::Value object(Json::objectValue);
  object["time"] = line.time;
  object["module"] = line.module;
  object["level"] = std::string(1, line.level);
  object["text"] = line.text;
  std::cout << OnOneLine(object) << '\n';
}

bool Follow(const View& view, std::map<std::string, ModuleFile>& files,
            const std::atomic<bool>& interrupted) {
  std::map<std::string, Line> last;
  while (std::cout && !interrupted) {
    for (auto& [module, file] : files) {
      for (std::string text : file.TakeNewLines()) {
        text.pop_back();  // its line feed
        Line& line = last[module] = ParseLine(text, last[module]);
        Show(line, view);
      }
    }
    std::cout.flush();
    std::this_thread::sleep_for(kFollowPoll);
  }
  return static_cast<bool>(std::cout);
}

}  // namespace

bool ViewLogs(const std::vector<std::string>& arguments, const std::atomic<bool>& interrupted) {
  const View view = ParseView(arguments);
  // Opened before the first look: a line that is written meanwhile is shown twice rather than not.
  std::map<std::string, ModuleFile> files;
  std::error_code vanished;
  if (view.follows) {
    for (const fs::directory_entry& entry : fs::directory_iterator(view.directory, vanished)) {
      const auto module = ModuleFile::ModuleOf(entry.path().filename());
      if (module) files.try_emplace(*module, entry.path().string(), ModuleFile::Start::kAtEnd);
    }
  }
  for (const Line& line : ReadAll(view.directory)) Show(line, view);
  std::cout.flush();
  if (!std::cout) Complain("cannot write to standard output");
  return std::cout && (!view.follows || Follow(view, files, interrupted));
}

}  // namespace zelctl
