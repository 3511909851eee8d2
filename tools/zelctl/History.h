// The lines that were typed in earlier sessions, in $XDG_STATE_HOME/zelctl/history or
// ~/.local/state/zelctl/history, a file of mode 0600. Passwords are never stored.
#pragma once

#include <string>
#include <vector>

#include "Secrets.h"

namespace zelctl {

class History {
 public:
  static constexpr int kMostLines = 1000;

  // Reads what there is. A file that cannot be used costs one remark, and nothing is kept then.
  History();
  ~History();
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  // Of earlier sessions, the oldest first.
  const std::vector<std::string>& Lines() const { return m_lines; }
  void Add(const std::string& line);

 private:
  void Load(const std::string& directory);

  int m_fd = -1;
  std::vector<std::string> m_lines;
  SecretHider m_hider;
};

}  // namespace zelctl
