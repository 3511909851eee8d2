#include "Secrets.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <iterator>

#include <json/value.h>

#include "JsonText.h"
#include "MessageTexts.h"
#include "util/SecureWipe.h"

namespace zelctl {
namespace {

// In lower case; a key that contains one of them is secret.
constexpr const char* kSecretWords[] = {"password", "passwd", "pswd",   "pwd",
                                        "token",    "secret", "apikey", "credential"};
constexpr char kSchemeEnd[] = "://";
// A shorter value is not searched for elsewhere: too much would match.
constexpr std::size_t kShortestSearched = 4;

using Change = std::function<void(Json::Value& value)>;

std::string LastKey(const char* path) {
  const std::string whole = path;
  return whole.substr(whole.rfind('.') + 1);
}

std::set<std::string> KeysOfSchemas() {
  std::set<std::string> keys;
  for (const RequestText& request : AllRequests()) {
    for (const KeyText& key : request.keys) {
      if (key.isSecret) keys.insert(LastKey(key.path));
    }
  }
  return keys;
}

bool NamesSecret(const std::string& text) {
  std::string lower;
  for (const char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return std::any_of(std::begin(kSecretWords), std::end(kSecretWords),
                     [&](const char* word) { return lower.find(word) != std::string::npos; });
}

bool IsSecretKey(const std::string& key) {
  static const auto& known = *new std::set<std::string>(KeysOfSchemas());
  return known.count(key) != 0 || NamesSecret(key);
}

bool IsEmpty(const Json::Value& value) {
  return value.isNull() || (value.isString() && value.asString().empty());
}

// Calls `change` with each value under a secret key, also in texts that are JSON themselves.
void ForEachSecret(Json::Value& value, const Change& change) {
  if (value.isObject()) {
    for (const std::string& key : value.getMemberNames()) {
      if (IsSecretKey(key) && !IsEmpty(value[key])) {
        change(value[key]);
      } else {
        ForEachSecret(value[key], change);
      }
    }
  } else if (value.isArray()) {
    for (Json::Value& item : value) ForEachSecret(item, change);
  } else if (value.isString()) {
    Json::Value inside;
    if (!ParseJson(value.asString(), inside) || inside.isString()) return;
    const Json::Value before = inside;
    ForEachSecret(inside, change);
    if (inside != before) value = OnOneLine(inside);
  }
}

// The inside of the JSON string that holds `text`.
std::string InJson(const std::string& text) {
  const std::string quoted = OnOneLine(text);
  return quoted.substr(1, quoted.size() - 2);
}

void ReplaceAll(std::string& text, const std::string& what) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos;
       at += sizeof(kHiddenMark) - 1) {
    text.replace(at, what.size(), kHiddenMark);
  }
}

// A careless password may hold "@" and "/": up to the last "@" before a blank or quote it goes.
void HideUserInfo(std::string& text) {
  for (std::size_t at = 0; (at = text.find(kSchemeEnd, at)) != std::string::npos;) {
    at += sizeof(kSchemeEnd) - 1;
    const std::size_t end = std::min(text.find_first_of("\" \t", at), text.size());
    const std::size_t mark = text.rfind('@', end);
    if (mark == std::string::npos || mark <= at) continue;
    if (text.substr(at, mark - at).find(':') == std::string::npos) continue;
    text.replace(at, mark - at, kHiddenMark);
  }
}

}  // namespace

SecretHider::~SecretHider() {
  while (!m_seen.empty()) {
    std::string seen = std::move(m_seen.extract(m_seen.begin()).value());
    const commonutil::WipeGuard wipe(seen);
  }
}

std::string SecretHider::Hide(const std::string& message) {
  Json::Value parsed;
  if (!ParseJson(message, parsed)) return NamesSecret(message) ? kHiddenMark : message;
  bool isChanged = false;
  ForEachSecret(parsed, [&](Json::Value& value) {
    if (value.isString() && value.asString().size() >= kShortestSearched) {
      m_seen.insert(InJson(value.asString()));
    }
    value = kHiddenMark;
    isChanged = true;
  });
  // Written anew also when only a comment may name the secret, which that leaves out.
  std::string hidden = isChanged || NamesSecret(message) ? OnOneLine(parsed) : message;
  for (const std::string& seen : m_seen) ReplaceAll(hidden, seen);
  HideUserInfo(hidden);
  return hidden;
}

std::string HiddenSetting(const std::string& key, const std::string& value) {
  if (value.empty()) return value;
  if (IsSecretKey(key)) return kHiddenMark;
  std::string hidden = value;
  HideUserInfo(hidden);
  return hidden;
}

std::size_t CountHidden(const std::string& message) {
  Json::Value parsed;
  if (!ParseJson(message, parsed)) return message == kHiddenMark ? 1 : 0;
  std::size_t count = 0;
  ForEachSecret(parsed, [&](Json::Value& value) { count += value == kHiddenMark ? 1 : 0; });
  return count;
}

std::string FillHidden(const std::string& message, const std::string& secret) {
  Json::Value parsed;
  if (!ParseJson(message, parsed)) return message;
  ForEachSecret(parsed, [&](Json::Value& value) {
    if (value == kHiddenMark) value = secret;
  });
  return OnOneLine(parsed);
}

}  // namespace zelctl
