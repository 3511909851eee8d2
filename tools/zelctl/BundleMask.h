// Takes out of a text what nobody but its user may read, and marks each place: "[removed: ...]".
//
// To take out too much does no harm, so a rule decides against the text where it can be read two
// ways.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <json/value.h>

#include "logger/SensitiveWords.h"

namespace zelctl {

enum class Removal {
  kPassword,
  kToken,
  kAuthorization,
  kPrivateKey,
  kUser,
  kMail,
  kAddress,
  kHome,
  kStoredValue,  // a value of the client's own files
  kLongLine,
  kCount,
};

const char* NameOf(Removal removal);

// How often each was made.
using Removals = std::array<std::size_t, static_cast<std::size_t>(Removal::kCount)>;

Json::Value RemovalsJson(const Removals& removals);

class BundleMask {
 public:
  // `word` is taken out wherever it stands; one of less than 8 bytes would hit too much and is
  // ignored.
  void AddWord(const std::string& word);

  // One line without its line feed. `*isInKey` carries from line to line that the lines of a
  // private key go on; false at the beginning of a text.
  std::string Line(std::string_view line, bool* isInKey, Removals* removals) const;
  // A text of lines.
  std::string Text(const std::string& text, Removals* removals) const;
  // The document with what its member names call secret, and what `Line` finds in its texts, taken
  // out.
  Json::Value Document(const Json::Value& value, Removals* removals) const;

  // Members and settings of this name hold a secret.
  static bool IsSecretName(std::string_view name);

 private:
  struct Find;
  Find FindAt(std::string_view line, std::size_t at, std::size_t headerEnd) const;
  std::size_t WordAt(std::string_view text, std::size_t at) const;

  std::unordered_map<std::string, std::vector<std::string>> m_words;  // by their first 8 bytes
  std::bitset<65536> m_beginnings;  // the first two bytes of the words
  SensitiveWords m_product;         // without words: users in addresses, and control bytes
};

}  // namespace zelctl
