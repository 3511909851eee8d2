// What TAB makes of a line that is being typed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zelctl {

struct Candidate {
  std::string text;  // as it would stand in the line
  std::string type;
  std::string meaning;
};

struct Completion {
  std::size_t erased = 0;             // bytes before the cursor that `inserted` replaces
  std::string inserted;               // at the cursor
  std::vector<Candidate> candidates;  // to choose from, when there are several
};

// Completes a word that begins with ":" to one of `words`; a command's number or name to a whole
// request; within a request the keys and the values that they may have. `line` ends at the cursor.
Completion Complete(const std::string& line, const std::vector<Candidate>& words);

}  // namespace zelctl
