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

struct Options {
  bool help = false;
  std::string dataDirectory = "./zel-data";
  std::chrono::nanoseconds timeout = std::chrono::seconds(10);  // per request
  bool loopback = false;
  std::string input;  // a path, or "-" for standard input
};

// Throws UsageError.
Options ParseOptions(int argc, const char* const* argv);

const char* UsageText();

}  // namespace zelctl
