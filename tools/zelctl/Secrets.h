// Keeps passwords out of what is written to files.
#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace zelctl {

// What stands in the place of a password.
inline constexpr char kHiddenMark[] = "***";

// Replaces in messages the values of keys that hold passwords, tokens and the like: those that the
// schemas mark, and any other key that is called so. Texts that hold JSON are looked through too,
// and "user:password@" of an address goes.
class SecretHider {
 public:
  SecretHider() = default;
  ~SecretHider();
  SecretHider(const SecretHider&) = delete;
  SecretHider& operator=(const SecretHider&) = delete;

  // `message` as it is when it holds nothing secret. What is no JSON and names such a key becomes
  // the mark as a whole. A value that was hidden once is hidden wherever it comes again.
  std::string Hide(const std::string& message);

 private:
  std::set<std::string> m_seen;  // as they stand in JSON; wiped at the end
};

// The value of a setting: the mark when the key is called so, else without "user:password@".
std::string HiddenSetting(const std::string& key, const std::string& value);

// How many passwords of `message` were hidden.
std::size_t CountHidden(const std::string& message);

// The message with `secret` where passwords were hidden.
std::string FillHidden(const std::string& message, const std::string& secret);

}  // namespace zelctl
