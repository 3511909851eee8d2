#include "Subcommands.h"

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
#include "Text.h"

namespace zelctl {
namespace {

constexpr Subcommand kSubcommands[] = {
    {"bundle", WriteBundle, "DIR OUT.tar.gz [--logs DIR] [--max-size 20M] [--force] [--list]",
     "pack logs, versions and the doctor's report, without secrets;\n      "
     "--list only shows what would go in"},
    {"cache list", ListCache, "DIR [--values]",
     "list the config cache of a client that does not run"},
    {"cache get", GetCache, "DIR KEY [--values]", "show one entry"},
    {"cache put", PutCache, "DIR KEY VALUE", "store an entry; VALUE - is read from standard input"},
    {"cache delete", DeleteCache, "DIR KEY", "remove an entry"},
    {"cache export", ExportCache, "DIR FILE [--values]", "write the list as JSON to a new file"},
    {"cache verify", VerifyCache, "DIR", "check the whole database"},
    {"config", ShowConfig, "DIR [KEY]", "print the settings of DIR/config.txt, or one"},
    {"doctor", RunDoctor, "DIR [--repair]",
     "say what is wrong with the data of a client that does not run, and mend it"},
    {"explain", ExplainCode, "CODE", "say what a result code means and what to do"},
    {"logs clean", CleanLogs, "DIR --days N",
     "remove what was last written more than N days ago; 3 to 30 count as given,\n      "
     "less as 3, more as 30"},
    {"logs view", ViewLogs,
     "DIR [-f] [--module NAME] [--level E|W|I|D]\n"
     "                   [--since TIME] [--until TIME]",
     "the lines of all modules, merged by their time; -f goes on with new ones"},
    {"logs watch", WatchLogs, "DIR [--seconds N]", "print new lines of DIR's module logs"},
    {"net", MeasureServers, "SERVER... [--tls]",
     "measure up to four STUN servers, HOST or HOST:PORT"},
    {"proxy", TryProxy, "URL [--proxy HOST:PORT] [--user NAME]",
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

}  // namespace

std::optional<bool> RunSubcommand(int argc, const char* const* argv,
                                  const std::atomic<bool>& interrupted) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  bool hasBeginning = false;
  for (const Subcommand& subcommand : kSubcommands) {
    const std::vector<std::string> words = WordsOf(subcommand.name);
    const std::size_t matching = Matching(words, arguments);
    if (matching == words.size()) {
      const auto rest = arguments.begin() + static_cast<std::ptrdiff_t>(matching);
      return subcommand.run({rest, arguments.end()}, interrupted);
    }
    hasBeginning = hasBeginning || matching > 0;
  }
  if (!hasBeginning) return std::nullopt;
  throw UsageError(Quoted(arguments[0]) + " needs the word for what to do; see zelctl --help");
}

std::string SubcommandUsage() {
  std::string usage = "\nBeside playing requests; all that tell something know --json:\n";
  for (const auto& [name, run, parameters, what] : kSubcommands) {
    usage += std::string("  zelctl ") + name + " " + parameters + "\n      " + what + "\n";
  }
  return usage;
}

}  // namespace zelctl
