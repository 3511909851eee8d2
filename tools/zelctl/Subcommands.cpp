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
    {"bundle", WriteBundle,
     "  zelctl bundle DIR OUT.tar.gz [--logs DIR] [--max-size 20M] [--force] [--list] [--json]\n"
     "                                        pack logs, versions and the doctor's report,\n"
     "                                        without secrets (--list: only show)\n"},
    {"cache list", ListCache,
     "  zelctl cache list DIR                 list the config cache of a client that does not run\n"
     "                                        (--values: with the values; --json)\n"},
    {"cache get", GetCache,
     "  zelctl cache get DIR KEY              show one entry (--values, --json)\n"},
    {"cache put", PutCache,
     "  zelctl cache put DIR KEY VALUE        store an entry; VALUE - is read from standard "
     "input\n"},
    {"cache delete", DeleteCache, "  zelctl cache delete DIR KEY           remove an entry\n"},
    {"cache export", ExportCache,
     "  zelctl cache export DIR FILE          write the list as JSON to a new file (--values)\n"},
    {"cache verify", VerifyCache,
     "  zelctl cache verify DIR               check the whole database (--json)\n"},
    {"config", ShowConfig,
     "  zelctl config DIR [KEY]               print the settings of DIR/config.txt, or one\n"
     "                                        (--json)\n"},
    {"doctor", RunDoctor,
     "  zelctl doctor DIR [--repair]          say what is wrong with the data of a client that "
     "does\n"
     "                                        not run, and mend it (--json)\n"},
    {"explain", ExplainCode,
     "  zelctl explain CODE [--json]          say what a result code means and what to do\n"},
    {"logs clean", CleanLogs,
     "  zelctl logs clean DIR --days N        remove what was last written more than N days ago\n"
     "                                        (3 to 30 count as given, less as 3, more as 30; "
     "--json)\n"},
    {"logs view", ViewLogs,
     "  zelctl logs view DIR [-f] [--module NAME] [--level E|W|I|D] [--since TIME] [--until TIME]\n"
     "                                        the lines of all modules, merged by their time\n"
     "                                        (--json: one object a line)\n"},
    {"logs watch", WatchLogs,
     "  zelctl logs watch DIR [--seconds N]   print new lines of DIR's module logs (--json)\n"},
    {"net", MeasureServers,
     "  zelctl net SERVER... [--tls] [--json] measure up to four STUN servers, HOST or "
     "HOST:PORT\n"},
    {"proxy", TryProxy,
     "  zelctl proxy URL [--proxy HOST:PORT] [--user NAME] [--json]\n"
     "                                        try the URL directly and through the proxy, whose\n"
     "                                        password is in ZEL_PROXY_PASSWORD\n"},
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
  std::string usage = "\nBeside playing requests:\n";
  for (const Subcommand& subcommand : kSubcommands) usage += subcommand.usage;
  return usage;
}

}  // namespace zelctl
