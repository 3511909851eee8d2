// zelctl talks with libzel_utils: it plays JSON requests, or lets a person type them, and prints
// what comes back. Its subcommands help in support.

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <system_error>

#include "Console.h"
#include "DataDirectory.h"
#include "LineReader.h"
#include "Loopback.h"
#include "Options.h"
#include "Painter.h"
#include "Report.h"
#include "Signals.h"
#include "Subcommands.h"
#include "Text.h"
#include "Transcript.h"
#include "publicInc/CommonUtilEntry.h"

namespace {

constexpr int kExitAnswered = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr char kStandardInput[] = "-";

const std::map<std::string, std::string> kNoPlaces;

bool IsColourful(zelctl::Colouring colouring) {
  if (colouring == zelctl::Colouring::kAuto) return zelctl::IsColourful(STDOUT_FILENO);
  return colouring == zelctl::Colouring::kAlways;
}

// Both ways, and one whose cursor can be moved.
bool IsAtTerminal() {
  const char* const terminal = std::getenv("TERM");
  return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1 && terminal != nullptr &&
         std::strcmp(terminal, "dumb") != 0;
}

bool Play(const zelctl::Options& options) {
  const bool isReplay = !options.replay.empty();
  const bool isConversation = !isReplay && options.input.empty() && IsAtTerminal();
  // What cannot be read is said before anything is made.
  const auto replay =
      isReplay ? zelctl::ReadTranscript(options.replay) : std::vector<zelctl::TranscriptLine>();
  zelctl::LineReader input(isReplay || options.input.empty() ? kStandardInput : options.input);
  const zelctl::DataDirectory data(options.dataDirectory);
  std::unique_ptr<zelctl::TranscriptWriter> record;
  if (!options.record.empty()) record = std::make_unique<zelctl::TranscriptWriter>(options.record);
  std::unique_ptr<zelctl::Loopback> loopback;
  if (options.loopback) loopback = std::make_unique<zelctl::Loopback>();
  zelctl::Console console({data, loopback ? loopback->Places() : kNoPlaces, record.get(),
                           IsColourful(options.colouring), options.timeout},
                          zelctl::Signals());
  if (isReplay) return console.Replay(replay);
  return isConversation ? console.Converse() : console.PlayLines(input);
}

int Run(int argc, const char* const* argv) {
  zelctl::HandleSignals();
  if (const auto succeeded = zelctl::RunSubcommand(argc, argv, zelctl::Signals().interrupted)) {
    return *succeeded ? kExitAnswered : kExitFailed;
  }
  const zelctl::Options options = zelctl::ParseOptions(argc, argv);
  if (options.help) {
    return zelctl::Print(zelctl::UsageText() + zelctl::SubcommandUsage()) ? kExitAnswered
                                                                          : kExitFailed;
  }
  if (options.version) {
    return zelctl::Print(std::string("zelctl ") + CommonUtilVersion() + '\n') ? kExitAnswered
                                                                              : kExitFailed;
  }
  return Play(options) ? kExitAnswered : kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const zelctl::UsageError& error) {
    zelctl::Complain(error.what());
    return kExitUsage;
  } catch (const zelctl::Interrupted& error) {
    zelctl::Complain(error.what());
    return kExitFailed;
  } catch (const std::system_error& error) {
    const bool isForbidden = error.code() == std::errc::permission_denied ||
                             error.code() == std::errc::operation_not_permitted;
    zelctl::Complain(std::string("cannot go on: ") + error.what() +
                     (isForbidden ? "; its owner or mode keeps this user out" : ""));
    return kExitFailed;
  } catch (const std::exception& error) {
    zelctl::Complain(std::string("cannot go on: ") + error.what());
    return kExitFailed;
  }
}
