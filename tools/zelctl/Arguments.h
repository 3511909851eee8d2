// What stands behind the name of a subcommand: words, and options without a value.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace zelctl {

class Arguments {
 public:
  // An option begins with "--" and may stand anywhere; behind a "--" alone everything is a word.
  // Throws UsageError for one that is not `known`.
  Arguments(const std::vector<std::string>& given, const std::set<std::string>& known);

  bool Has(const std::string& option) const { return m_options.count(option) != 0; }
  const std::vector<std::string>& Words() const { return m_words; }

 private:
  std::vector<std::string> m_words;
  std::set<std::string> m_options;
};

}  // namespace zelctl
