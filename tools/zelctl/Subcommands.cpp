#include "Subcommands.h"

#include <algorithm>
#include <cstddef>

#include "BundleCommand.h"
#include "CacheCommand.h"
#include "ConfigCommand.h"
#include "DoctorCommand.h"
#include "ExplainCommand.h"
#include "LogView.h"
#include "LogsCommand.h"
#include "NetworkCommand.h"
#include "Options.h"
#include "Report.h"
#include "Text.h"

namespace zelctl {
namespace {

constexpr Subcommand kSubcommands[] = {
    {"bundle", WriteBundle,
     "DIR OUT.tar.gz [--logs DIR] [--max-size 20M]\n                [--force] [--list] [--json]",
     "pack logs, versions and the doctor's report, without secrets;\n      "
     "--list only shows what would go in"},
    {"cache list", ListCache, "DIR [--values] [--json]",
     "list the config cache of a client that does not run"},
    {"cache get", GetCache, "DIR KEY [--values] [--json]", "show one entry"},
    {"cache put", PutCache, "DIR KEY VALUE", "store an entry; VALUE - is read from standard input"},
    {"cache delete", DeleteCache, "DIR KEY", "remove an entry"},
    {"cache export", ExportCache, "DIR FILE [--values]", "write the list as JSON to a new file"},
    {"cache verify", VerifyCache, "DIR [--json]", "check the whole database"},
    {"config", ShowConfig, "DIR [KEY] [--json]",
     "print the settings of DIR/config.txt, passwords as ***, or one as it is"},
    {"doctor", RunDoctor, "DIR [--repair] [--json]",
     "say what is wrong with the data of a client that does not run, and mend it"},
    {"explain", ExplainCode, "CODE [--json]", "say what a result code means and what to do"},
    {"logs clean", CleanLogs, "DIR --days N [--json]",
     "remove every file below DIR that was last written more than N days ago;\n      "
     "3 to 30 count as given, less as 3, more as 30"},
    {"logs view", ViewLogs,
     "DIR [-f] [--module NAME] [--level E|W|I|D]\n"
     "                   [--since TIME] [--until TIME] [--json]",
     "the lines of all modules, merged by their time; -f goes on with new ones"},
    {"logs watch", WatchLogs, "DIR [--seconds N] [--json]",
     "print new lines of the logs of all modules as they come"},
    {"net", MeasureServers, "SERVER... [--tls] [--json]",
     "measure up to four STUN servers, HOST or HOST:PORT"},
    {"proxy", TryProxy, "URL [--proxy HOST:PORT] [--user NAME] [--json]",
     "try the URL directly and through the proxy, whose password is in\n      "
     "ZEL_PROXY_PASSWORD"},
};

std::vector<std::string> WordsOf(const std::string& name) {
  std::vector<std::string> words;
  std::size_t begin = 0;
  for (std::size_t blank; (blank = name.find(' ', begin)) != std::string::npos; begin = blank + 1) {
    words.push_back(name.substr(begin, blank - begin));
  }
  words.push_back(name.substr(begin));
  return words;
}

// How many of `words` the arguments begin with.
std::size_t Matching(const std::vector<std::string>& words,
                     const std::vector<std::string>& arguments) {
  std::size_t count = 0;
  while (count < words.size() && count < arguments.size() && words[count] == arguments[count]) {
    ++count;
  }
  return count;
}

// "-h" may also be a value: it asks for help only where nothing stands before it.
bool AsksForHelp(const std::vector<std::string>& arguments) {
  const auto end = std::find(arguments.begin(), arguments.end(), "--");
  return std::find(arguments.begin(), end, "--help") != end ||
         (!arguments.empty() && arguments[0] == "-h");
}

std::string UsageOf(const Subcommand& subcommand) {
  return std::string("  zelctl ") + subcommand.name + " " + subcommand.parameters + "\n      " +
         subcommand.what + "\n";
}

}  // namespace

std::optional<bool> RunSubcommand(int argc, const char* const* argv,
                                  const std::atomic<bool>& interrupted) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  std::string usages;  // of those that the first word begins
  std::string choices;
  for (const Subcommand& subcommand : kSubcommands) {
    const std::vector<std::string> words = WordsOf(subcommand.name);
    const std::size_t matching = Matching(words, arguments);
    if (matching == words.size()) {
      const auto begin = arguments.begin() + static_cast<std::ptrdiff_t>(matching);
      const std::vector<std::string> rest(begin, arguments.end());
      return AsksForHelp(rest) ? Print(UsageOf(subcommand)) : subcommand.run(rest, interrupted);
    }
    if (matching == 0) continue;
    usages += UsageOf(subcommand);
    choices += (choices.empty() ? "" : ", ") + words[matching];
  }
  if (usages.empty()) return std::nullopt;
  if (AsksForHelp({arguments.begin() + 1, arguments.end()})) return Print(usages);
  throw UsageError(arguments[0] + " needs one of " + choices + "; see zelctl " + arguments[0] +
                   " --help");
}

std::string SubcommandUsage() {
  std::string usage = "\nSubcommands for support, of which --help tells alone:\n";
  for (const Subcommand& subcommand : kSubcommands) usage += UsageOf(subcommand);
  return usage;
}

}  // namespace zelctl
