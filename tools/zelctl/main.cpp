// zelctl plays a file of JSON requests against libzel_utils and prints what comes back.

#include <signal.h>

#include <atomic>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include "DataDirectory.h"
#include "LineReader.h"
#include "Loopback.h"
#include "Options.h"
#include "SampleReports.h"
#include "Session.h"
#include "Subcommands.h"
#include "Text.h"

namespace {

constexpr int kExitAnswered = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const std::map<std::string, std::string> kNoPlaces;

std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "written by a signal handler");

void Interrupt(int) { g_interrupted = true; }

// The first signal ends the session in order, a second one ends the process at once. Output
// that nobody reads any more is an error of the write, not the end of the process.
void HandleSignals() {
  struct sigaction action {};
  action.sa_handler = Interrupt;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

bool IsSkipped(const std::string& line) {
  return line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#';
}

constexpr char kSampleReports[] = "!reports";

// Plays line after line; false when the input could not be read to its end.
bool PlayAll(zelctl::LineReader& input, const zelctl::DataDirectory& data,
             const std::map<std::string, std::string>& places, zelctl::Session& session) {
  using Result = zelctl::LineReader::Result;
  std::string line;
  while (!g_interrupted && session.CanPrint()) {
    const Result result = input.Next(line);
    session.PrintArrived();
    if (result == Result::kEnd) return true;
    if (result == Result::kError) return false;
    if (result == Result::kNothingYet || IsSkipped(line)) continue;
    if (line == kSampleReports) {
      zelctl::SendSampleReports();
      continue;
    }
    session.Play(data.Expand(zelctl::FillPlaces(line, places)), input.LineNumber());
  }
  if (g_interrupted) zelctl::Complain("interrupted");
  return false;
}

int Run(int argc, const char* const* argv) {
  HandleSignals();
  if (const auto succeeded = zelctl::RunSubcommand(argc, argv, g_interrupted)) {
    return *succeeded ? kExitAnswered : kExitFailed;
  }
  const zelctl::Options options = zelctl::ParseOptions(argc, argv);
  if (options.help) {
    std::cout << zelctl::UsageText() << zelctl::SubcommandUsage() << std::flush;
    return std::cout ? kExitAnswered : kExitFailed;
  }
  zelctl::LineReader input(options.input);
  const zelctl::DataDirectory data(options.dataDirectory);
  std::unique_ptr<zelctl::Loopback> loopback;
  if (options.loopback) loopback = std::make_unique<zelctl::Loopback>();
  zelctl::Session session(options.timeout, g_interrupted);
  if (!session.Start()) return kExitFailed;
  const bool playedAll = PlayAll(input, data, loopback ? loopback->Places() : kNoPlaces, session);
  session.Finish();
  return playedAll && session.Succeeded() ? kExitAnswered : kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const zelctl::UsageError& error) {
    zelctl::Complain(error.what());
    return kExitUsage;
  } catch (const std::exception& error) {
    zelctl::Complain(std::string("cannot go on: ") + error.what());
    return kExitFailed;
  }
}
