#include "Options.h"

#include <charconv>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "Text.h"

namespace zelctl {
namespace {

constexpr double kLongestTimeoutSeconds = 1e6;

// The arguments one after another; an option's value may follow it or stand behind a "=".
class Arguments {
 public:
  Arguments(int argc, const char* const* argv) : m_next(argv + 1), m_end(argv + argc) {}

  bool AtEnd() const { return m_next >= m_end; }
  std::string Take() { return *m_next++; }

  // True when `argument` is the option `name`; `value` then holds what was given with it.
  bool TakeValue(const std::string& argument, const std::string& name, std::string& value) {
    if (argument.compare(0, name.size() + 1, name + "=") == 0) {
      value = argument.substr(name.size() + 1);
    } else if (argument != name) {
      return false;
    } else if (AtEnd()) {
      throw UsageError(name + " needs a value; see zelctl --help");
    } else {
      value = Take();
    }
    return true;
  }

 private:
  const char* const* m_next;
  const char* const* m_end;
};

void SetInput(Options& options, const std::string& path) {
  if (path.empty()) throw UsageError("FILE is empty; name a file of requests, or - for stdin");
  if (!options.input.empty()) {
    throw UsageError(Quoted(options.input) + " is no subcommand, so it is the FILE to play, and " +
                     Quoted(path) + " is one too many; see zelctl --help");
  }
  options.input = path;
}

void Check(const Options& options) {
  if (options.dataDirectory.empty()) throw UsageError("--data needs the name of a directory");
  if (!options.replay.empty() && !options.input.empty()) {
    throw UsageError("--replay takes the place of FILE; leave " + Quoted(options.input) + " out");
  }
}

Colouring ParseColouring(const std::string& text) {
  if (text == "auto") return Colouring::kAuto;
  if (text == "always") return Colouring::kAlways;
  if (text == "never") return Colouring::kNever;
  throw UsageError("--color needs auto, always or never, not " + Quoted(text));
}

std::string NonEmpty(const std::string& option, const std::string& path) {
  if (path.empty()) throw UsageError(option + " needs the name of a file");
  return path;
}

}  // namespace

std::chrono::nanoseconds ParseSeconds(const std::string& option, const std::string& text) {
  double seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, seconds);
  // Written so that "nan" fails too.
  const bool inRange = seconds > 0 && seconds <= kLongestTimeoutSeconds;
  if (error != std::errc() || rest != end || !inRange) {
    throw UsageError(option + " needs a positive number of seconds (at most 1000000), not " +
                     Quoted(text));
  }
  // Never zero: a time-out below the clock's unit still is one.
  return std::chrono::nanoseconds(static_cast<long long>(seconds * 1e9) + 1);
}

void CheckClientDirectory(const std::string& path) {
  std::error_code ignored;  // what cannot be looked at is no directory of a client either
  if (std::filesystem::is_directory(path, ignored)) return;
  throw UsageError(Quoted(path) + " is no directory; name the data directory of a client");
}

Options ParseOptions(int argc, const char* const* argv) {
  Options options;
  Arguments arguments(argc, argv);
  bool onlyFiles = false;  // after "--"
  while (!arguments.AtEnd()) {
    const std::string argument = arguments.Take();
    const bool isOption = !onlyFiles && argument.size() > 1 && argument[0] == '-';
    std::string value;
    if (argument == "--help" || argument == "-h" || argument == "help") {
      options.help = true;
      return options;
    }
    if (!isOption) {
      SetInput(options, argument);
    } else if (argument == "--") {
      onlyFiles = true;
    } else if (argument == "--version") {
      options.version = true;
    } else if (argument == "--loopback") {
      options.loopback = true;
    } else if (arguments.TakeValue(argument, "--data", value)) {
      options.dataDirectory = value;
    } else if (arguments.TakeValue(argument, "--timeout", value)) {
      options.timeout = ParseSeconds("--timeout", value);
    } else if (arguments.TakeValue(argument, "--record", value)) {
      options.record = NonEmpty("--record", value);
    } else if (arguments.TakeValue(argument, "--replay", value)) {
      options.replay = NonEmpty("--replay", value);
    } else if (arguments.TakeValue(argument, "--color", value)) {
      options.colouring = ParseColouring(value);
    } else {
      throw UsageError("unknown option " + Quoted(argument) + "; see zelctl --help");
    }
  }
  Check(options);
  return options;
}

const char* UsageText() {
  return R"(usage: zelctl [OPTION...] [FILE|-]
       zelctl [OPTION...] --replay FILE
       zelctl SUBCOMMAND ...

Without FILE, at a terminal, a console: type requests, TAB completes, :help
tells more. With FILE, plays the JSON requests in it, one a line, against
libzel_utils and prints every reply and notification as one JSON line. Blank
lines and lines that begin with # are skipped, :help and the like work as in the
console; the line !reports lets the network tools report made-up results of
detections that no message starts. "-" reads standard input, line by line as it
arrives; so does no FILE without a terminal.

  --data DIR         data directory, made when missing (default ./zel-data);
                     ${DATA} in a request stands for its absolute path
  --timeout SECONDS  how long to wait for the reply to each request (default 10)
  --loopback         serve an HTTP origin, an HTTP proxy and a STUN responder on
                     loopback, whose places stand for ${ORIGIN}, ${PROXY_HOST},
                     ${PROXY_PORT}, ${PROXY_USER}, ${PROXY_PASSWORD}, ${STUN};
                     without it ${NAME:-text} stands for the text
  --record FILE      write the conversation to a new file, passwords replaced
  --replay FILE      send what such a file holds, at the same times; passwords
                     are sent as ***, or as ZEL_PROXY_PASSWORD says
  --color WHEN       always, never, or auto: at a terminal without NO_COLOR
  --version          print the library's version
  --help             print this text

Exit status: 0 when every request that is due a reply got one in time, 1
otherwise, 2 for wrong usage. Remarks go to standard error.
)";
}

}  // namespace zelctl
