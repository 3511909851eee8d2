#include "Arguments.h"

#include "Options.h"
#include "Text.h"

namespace zelctl {
namespace {

constexpr char kOptionMark[] = "--";

}  // namespace

Arguments::Arguments(const std::vector<std::string>& given, const std::set<std::string>& known) {
  bool onlyWords = false;
  for (const std::string& argument : given) {
    if (onlyWords || argument.compare(0, sizeof(kOptionMark) - 1, kOptionMark) != 0) {
      m_words.push_back(argument);
    } else if (argument == kOptionMark) {
      onlyWords = true;
    } else if (known.count(argument) != 0) {
      m_options.insert(argument);
    } else {
      throw UsageError("unknown option " + Quoted(argument) + "; see zelctl --help");
    }
  }
}

}  // namespace zelctl
