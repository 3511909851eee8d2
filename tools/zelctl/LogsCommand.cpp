#include "LogsCommand.h"

#include <chrono>
#include <filesystem>
#include <iostream>
#include <optional>
#include <system_error>
#include <thread>

#include <json/value.h>

#include "DataFiles.h"
#include "JsonText.h"
#include "ModuleFile.h"
#include "Options.h"
#include "Progress.h"
#include "Report.h"
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

// A clean-up takes whatever is old enough, whatever it is.
void RefuseData(const std::string& directory) {
  std::error_code error;
  for (fs::recursive_directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const fs::path name = entry->path().filename();
    if (name != kDatabaseFile && name != kSaltFile && name != kKeyStoreFolder) continue;
    throw UsageError(Quoted(entry->path().string()) +
                     " is data of a client, which would go too; name the directory of its logs");
  }
  if (error) throw std::system_error(error, "cannot read all of " + directory);
}

void ShowNew(const std::string& module, const std::string& line, bool asJson) {
  const std::string text = line.substr(0, line.size() - 1);  // without its line feed
  if (!asJson) {
    std::cout << module << ": " << Printable(text) << '\n';
    return;
  }
  Json::Value object(Json::objectValue);
  object["module"] = module;
  object["text"] = text;
  std::cout << OnOneLine(object) << '\n';
}

}  // namespace

bool CleanLogs(const std::vector<std::string>& given, const std::atomic<bool>& interrupted) {
  const Arguments arguments = Parse(given, "--days");
  if (!arguments.number) throw UsageError("--days is missing; say how many days of logs to keep");
  RefuseData(arguments.directory);
  LogBusiness::InitConfig(arguments.directory, *arguments.number);
  LogBusiness::DoAsyncDelete(LogBusiness::kAfterConference);
  {
    const Progress progress("removing");
    while (LogBusiness::IsCleaning() && !interrupted) std::this_thread::sleep_for(kCleanPoll);
  }
  if (interrupted) Complain("interrupted");
  const auto count = static_cast<std::size_t>(LogBusiness::DeletedFiles());
  return Print(arguments.asJson ? "{\"removed\":" + std::to_string(count) + "}\n"
                                : "removed " + Counted(count, "file") + '\n') &&
         !interrupted;
}

bool WatchLogs(const std::vector<std::string>& given, const std::atomic<bool>& interrupted) {
  const Arguments arguments = Parse(given, "--seconds");
  const auto begin = std::chrono::steady_clock::now();
  FollowedLogs logs(arguments.directory);
  Complain("watching " + Quoted(arguments.directory));
  for (;;) {
    // Asked before the last look, so that it shows all that was written until then.
    const bool isLast =
        interrupted || (arguments.number && std::chrono::steady_clock::now() - begin >=
                                                std::chrono::seconds(*arguments.number));
    logs.TakeNewLines([&](const std::string& module, const std::string& line) {
      ShowNew(module, line, arguments.asJson);
    });
    std::cout.flush();
    if (!std::cout) return false;
    if (isLast) return true;
    std::this_thread::sleep_for(kWatchPoll);
  }
}

}  // namespace zelctl
