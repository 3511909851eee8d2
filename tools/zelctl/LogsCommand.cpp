#include "LogsCommand.h"

#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <system_error>
#include <thread>

#include <json/value.h>

#include "JsonText.h"
#include "ModuleFile.h"
#include "Options.h"
#include "Progress.h"
#include "Text.h"
#include "util/LogBusiness.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;
using commonutil::LogBusiness;

constexpr std::chrono::milliseconds kCleanPoll(5);
constexpr std::chrono::milliseconds kWatchPoll(50);
constexpr char kJsonOption[] = "--json";
constexpr unsigned long kLargestNumber = 1000000;

struct Arguments {
  std::string directory;
  std::optional<unsigned long> number;  // of the one option
  bool asJson = false;
};

unsigned long ParseNumber(const std::string& option, const std::string& text) {
  const bool isNumber = !text.empty() && text.size() <= 7 &&
                        text.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long number = isNumber ? std::stoul(text) : 0;
  if (number >= 1 && number <= kLargestNumber) return number;
  throw UsageError(option + " needs a whole number from 1 to 1000000, not " + Quoted(text));
}

void SetDirectory(Arguments& arguments, const std::string& path) {
  if (!arguments.directory.empty()) {
    throw UsageError("only one DIR can be given, " + Quoted(path) + " is one too many");
  }
  std::error_code ignored;  // what cannot be looked at is no directory of logs either
  if (!fs::is_directory(path, ignored)) {
    throw UsageError(Quoted(path) + " is no directory; name the directory of the logs");
  }
  arguments.directory = path;
}

// A directory and an option with a number.
Arguments Parse(const std::vector<std::string>& given, const std::string& option) {
  Arguments arguments;
  for (auto next = given.begin(); next != given.end(); ++next) {
    if (*next == kJsonOption) {
      arguments.asJson = true;
    } else if (*next == option) {
      if (++next == given.end()) throw UsageError(option + " needs a value; see zelctl --help");
      arguments.number = ParseNumber(option, *next);
    } else if (next->compare(0, option.size() + 1, option + "=") == 0) {
      arguments.number = ParseNumber(option, next->substr(option.size() + 1));
    } else if (next->size() > 1 && next->front() == '-') {
      throw UsageError("unknown option " + Quoted(*next) + "; see zelctl --help");
    } else {
      SetDirectory(arguments, *next);
    }
  }
  if (arguments.directory.empty()) {
    throw UsageError("DIR is missing; name the directory of the logs");
  }
  return arguments;
}

// The logs of a directory that are followed, by module.
class Watch {
 public:
  Watch(std::string directory, bool asJson) : m_directory(std::move(directory)), m_asJson(asJson) {
    FindModules(ModuleFile::Start::kAtEnd);
  }

  // False when nobody takes the lines any more.
  bool PrintNew() {
    FindModules(ModuleFile::Start::kAtBegin);
    for (auto& [module, file] : m_files) {
      for (const std::string& line : file.TakeNewLines()) Show(module, line);
    }
    std::cout.flush();
    return static_cast<bool>(std::cout);
  }

 private:
  void FindModules(ModuleFile::Start start) {
    std::error_code vanished;  // the directory may come again
    for (const fs::directory_entry& entry : fs::directory_iterator(m_directory, vanished)) {
      const std::optional<std::string> module = ModuleFile::ModuleOf(entry.path().filename());
      if (module) m_files.try_emplace(*module, entry.path().string(), start);
    }
  }

  void Show(const std::string& module, const std::string& line) const {
    if (!m_asJson) {
      std::cout << module << ": " << line;
      return;
    }
    Json::Value object(Json::objectValue);
    object["module"] = module;
    object["text"] = line.substr(0, line.size() - 1);  // without its line feed
    std::cout << OnOneLine(object) << '\n';
  }

  const std::string m_directory;
  const bool m_asJson;
  std::map<std::string, ModuleFile> m_files;
};

}  // namespace

bool CleanLogs(const std::vector<std::string>& given, const std::atomic<bool>& interrupted) {
  const Arguments arguments = Parse(given, "--days");
  if (!arguments.number) throw UsageError("--days is missing; say how many days of logs to keep");
  LogBusiness::InitConfig(arguments.directory, *arguments.number);
  LogBusiness::DoAsyncDelete(LogBusiness::kAfterConference);
  {
    const Progress progress("removing");
    while (LogBusiness::IsCleaning() && !interrupted) std::this_thread::sleep_for(kCleanPoll);
  }
  if (interrupted) Complain("interrupted");
  const std::string count = std::to_string(LogBusiness::DeletedFiles());
  std::cout << (arguments.asJson ? "{\"removed\":" + count + "}\n"
                                 : "removed " + count + " files\n")
            << std::flush;
  return !interrupted && std::cout;
}

bool WatchLogs(const std::vector<std::string>& given, const std::atomic<bool>& interrupted) {
  const Arguments arguments = Parse(given, "--seconds");
  const auto begin = std::chrono::steady_clock::now();
  Watch watch(arguments.directory, arguments.asJson);
  Complain("watching " + Quoted(arguments.directory));
  for (;;) {
    // Asked before the last look, so that it shows all that was written until then.
    const bool isLast =
        interrupted || (arguments.number && std::chrono::steady_clock::now() - begin >=
                                                std::chrono::seconds(*arguments.number));
    if (!watch.PrintNew()) return false;
    if (isLast) return true;
    std::this_thread::sleep_for(kWatchPoll);
  }
}

}  // namespace zelctl
