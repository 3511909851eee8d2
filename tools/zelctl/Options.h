// What the user asked for on the command line.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

namespace zelctl {

// The command line cannot be followed; the text is one line that says what to do.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Colouring { kAuto, kAlways, kNever };

struct Options {
  bool help = false;
  bool version = false;
  std::string dataDirectory = "./zel-data";
  std::chrono::nanoseconds timeout = std::chrono::seconds(10);  // per request
  bool loopback = false;
  Colouring colouring = Colouring::kAuto;
  std::string record;  // a path, or "" for no record
  std::string replay;  // a path, or "" for none
  std::string input;   // a path, "-" for standard input, or "" for a person at the terminal
};

// Throws UsageError, which names `option`.
std::chrono::nanoseconds ParseSeconds(const std::string& option, const std::string& text);

// Throws UsageError unless `path` is a directory.
void CheckClientDirectory(const std::string& path);

// Throws UsageError.
Options ParseOptions(int argc, const char* const* argv);

const char* UsageText();

}  // namespace zelctl
