// The words that no log line and no tracking file may show, and the masking itself.
//
// Every byte covered by an occurrence of a word is hidden, and so is the user part of an
// address ("://user:password@"). Occurrences that overlap share one "***"; since all
// bytes of all words count, a long word hides whatever shorter word it contains.
//
// Any thread may call any function. Adding a word publishes a new table; a reader holds
// the lock only while it takes hold of the current one.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

class SensitiveWords {
 public:
  enum class Controls {
    kKeep,
    kEscape,  // CR, LF and the other control bytes except tab become \xNN
  };

  static SensitiveWords& Instance();

  SensitiveWords();
  SensitiveWords(const SensitiveWords&) = delete;
  SensitiveWords& operator=(const SensitiveWords&) = delete;

  // Empty and known words change nothing. Holds for every text masked after the return.
  void Add(const std::string& word);
  void Forget();  // for the test seam

  // Appends `text`, masked, to `out`. Bytes that are no valid UTF-8 stay as they are.
  void AppendMasked(std::string_view text, Controls controls, std::string* out) const;

 private:
  struct Table;
  std::shared_ptr<const Table> CurrentTable() const;

  mutable std::mutex m_lock;
  std::shared_ptr<const Table> m_table;  // guarded by m_lock; a table never changes
};
