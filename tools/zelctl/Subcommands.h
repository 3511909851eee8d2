// What the console does beside playing requests: "zelctl WORDS ARGUMENT...".
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

namespace zelctl {

struct Subcommand {
  const char* name;  // one word or several, parted by single blanks
  // Takes what stands behind the name; ends soon after `interrupted` is set. Returns whether it
  // succeeded. Throws UsageError.
  bool (*run)(const std::vector<std::string>& arguments, const std::atomic<bool>& interrupted);
  const char* parameters;
  const char* what;  // it does; lines behind the first are indented
};

// Runs the subcommand that the command line begins with; nothing when it begins with none. Throws
// UsageError, also for the beginning of a name.
std::optional<bool> RunSubcommand(int argc, const char* const* argv,
                                  const std::atomic<bool>& interrupted);

std::string SubcommandUsage();

}  // namespace zelctl
