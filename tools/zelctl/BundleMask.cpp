#include "BundleMask.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace zelctl {
namespace {

using std::string_view;
constexpr std::size_t kNone = string_view::npos;

constexpr const char* kNames[] = {
    "password",       "token",   "authorization",  "private key",  "user",
    "e-mail address", "address", "home directory", "stored value", "rest of a long line"};
static_assert(std::size(kNames) == static_cast<std::size_t>(Removal::kCount));

struct SecretName {
  const char* part;  // of a name, in lower case
  Removal removal;
};
constexpr SecretName kSecretNames[] = {
    {"authorization", Removal::kAuthorization},
    {"cookie", Removal::kAuthorization},
    {"password", Removal::kPassword},
    {"passwd", Removal::kPassword},
    {"pwd", Removal::kPassword},
    {"passphrase", Removal::kPassword},
    {"passcode", Removal::kPassword},
    {"secret", Removal::kPassword},
    {"credential", Removal::kPassword},
    {"private_key", Removal::kPassword},
    {"privatekey", Removal::kPassword},
    {"api_key", Removal::kPassword},
    {"api-key", Removal::kPassword},
    {"apikey", Removal::kPassword},
    {"access_key", Removal::kPassword},
    {"accesskey", Removal::kPassword},
    {"token", Removal::kToken},
    {"username", Removal::kUser},
    {"user_name", Removal::kUser},
    {"useraccount", Removal::kUser},
};
constexpr const char* kUserNames[] = {"user", "account", "login"};  // the whole name
constexpr const char* kSchemes[] = {"bearer", "basic", "digest", "negotiate"};
constexpr const char* kHomes[] = {"/home/", "/Users/"};
constexpr char kRootHome[] = "/root";
constexpr char kAuthorityMark[] = "://";
constexpr char kAuthorityEnd[] = "/?#\"<> \t\r\n";
constexpr char kKeyBegin[] = "-----BEGIN";
constexpr char kKeyWords[] = "PRIVATE KEY-----";
constexpr char kKeyEnd[] = "-----END";
constexpr std::size_t kShortestWord = 8;
constexpr std::size_t kLongestName = 64;
constexpr std::size_t kShortestCredential = 8;
constexpr std::size_t kShortestToken = 20;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsNameByte(char c) { return IsLetter(c) || IsDigit(c) || c == '_' || c == '-' || c == '.'; }
bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsMailByte(char c) {
  return IsNameByte(c) || c == '+' || c == '%' || (static_cast<unsigned char>(c) & 0x80) != 0;
}
bool IsBase64Byte(char c) {
  return IsLetter(c) || IsDigit(c) || c == '+' || c == '/' || c == '=' || c == '-' || c == '_';
}
bool IsHexByte(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

template <class Is>
std::size_t EndOf(string_view text, std::size_t at, Is&& is) {
  while (at < text.size() && is(text[at])) ++at;
  return at;
}

std::string Lower(string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

bool StartsWith(string_view text, std::size_t at, string_view with) {
  return text.compare(at, with.size(), with) == 0;
}

// kCount for a name without a secret.
Removal SecretOf(string_view name) {
  if (name.size() > kLongestName) name = name.substr(name.size() - kLongestName);
  const std::string lower = Lower(name);
  for (const SecretName& secret : kSecretNames) {
    if (lower.find(secret.part) != std::string::npos) return secret.removal;
  }
  const bool isUser = std::any_of(std::begin(kUserNames), std::end(kUserNames),
                                  [&](const char* user) { return lower == user; });
  return isUser ? Removal::kUser : Removal::kCount;
}

// Where a quoted value ends whose quote stands behind `slashes` backslashes: at the next quote with
// as many.
std::size_t QuotedEnd(string_view text, std::size_t at, char quote, std::size_t slashes) {
  std::size_t before = 0;
  for (; at < text.size(); ++at) {
    if (text[at] == quote && before == slashes) return at - slashes;
    before = text[at] == '\\' ? before + 1 : 0;
  }
  return text.size();
}

// A log line's header ends behind its second pair of brackets; 0 without one. The function's name
// and the line number in it look like a name and its value.
std::size_t HeaderEnd(string_view line) {
  if (line.size() < 5 || !IsDigit(line[0]) || line[4] != '-') return 0;
  const std::size_t second = line.find("] [");
  const std::size_t end = second == kNone ? kNone : line.find(']', second + 3);
  return end == kNone ? 0 : end + 1;
}

bool IsHarmlessAddress(string_view address) {
  return address.substr(0, 4) == "127." || address == "0.0.0.0" || address == "::1" ||
         address == "::";
}

bool IsAddress(int family, string_view text) {
  unsigned char bytes[sizeof(in6_addr)];
  return text.size() < INET6_ADDRSTRLEN &&
         ::inet_pton(family, std::string(text).c_str(), bytes) == 1;
}

bool IsHardwareAddress(string_view text) {
  if (text.size() != 17) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i % 3 == 2 ? text[i] != ':' : !IsHexByte(text[i])) return false;
  }
  return true;
}

// The end of the address that begins at `at`; `at` itself without one.
std::size_t AddressEnd(string_view line, std::size_t at) {
  string_view run = line.substr(at, INET6_ADDRSTRLEN);
  run = run.substr(0, EndOf(run, 0, [](char c) { return IsHexByte(c) || c == ':' || c == '.'; }));
  while (!run.empty() && (run.back() == '.' || (run.back() == ':' && run != "::"))) {
    if (IsAddress(AF_INET6, run)) break;
    run.remove_suffix(1);
  }
  if (run.empty()) return at;
  if (IsHardwareAddress(run) || IsAddress(AF_INET6, run)) return at + run.size();
  const std::size_t v4End = EndOf(run, 0, [](char c) { return IsDigit(c) || c == '.'; });
  string_view v4 = run.substr(0, v4End);
  while (!v4.empty() && v4.back() == '.') v4.remove_suffix(1);
  return IsAddress(AF_INET, v4) ? at + v4.size() : at;
}

}  // namespace

const char* NameOf(Removal removal) { return kNames[static_cast<std::size_t>(removal)]; }

Json::Value RemovalsJson(const Removals& removals) {
  Json::Value value(Json::objectValue);
  for (std::size_t i = 0; i < removals.size(); ++i) {
    if (removals[i] != 0) value[kNames[i]] = static_cast<Json::UInt64>(removals[i]);
  }
  return value;
}

// What begins at a place: the bytes from `begin` to `end` go, those before it stay.
struct BundleMask::Find {
  std::size_t begin = 0;
  std::size_t end = 0;
  Removal removal = Removal::kCount;
  bool Is() const { return end > begin; }

  static Find UserPart(string_view line, std::size_t at);
  static Find NamedSecret(string_view line, std::size_t at, std::size_t headerEnd);
  static Find Credential(string_view line, std::size_t at);
  static Find Mail(string_view line, std::size_t at);
  static Find Home(string_view line, std::size_t at);
};

// The last "@" counts: careless users put one into a password.
BundleMask::Find BundleMask::Find::UserPart(string_view line, std::size_t at) {
  if (!StartsWith(line, at, kAuthorityMark)) return {};
  const std::size_t begin = at + sizeof(kAuthorityMark) - 1;
  const string_view authority =
      line.substr(begin, std::min(line.find_first_of(kAuthorityEnd, begin), line.size()) - begin);
  const std::size_t mark = authority.rfind('@');
  if (mark == kNone) return {};
  return {begin, begin + mark, Removal::kUser};
}

// `name=value`, `"name": "value"`, `<name>value<`, `--name value` and the like.
BundleMask::Find BundleMask::Find::NamedSecret(string_view line, std::size_t at,
                                               std::size_t headerEnd) {
  const std::size_t nameEnd = EndOf(line, at, IsNameByte);
  const Removal removal = SecretOf(line.substr(at, nameEnd - at));
  if (removal == Removal::kCount) return {};
  std::size_t next =
      EndOf(line, nameEnd, [](char c) { return c == '\\' || c == '"' || c == '\''; });
  const bool isOption = StartsWith(line, at, "--") || (at > 1 && StartsWith(line, at - 2, "--"));
  const bool isElement = next < line.size() && line[next] == '>';
  next = EndOf(line, next, IsBlank);
  std::size_t begin = EndOf(line, next, [](char c) { return c == '=' || c == ':' || c == '>'; });
  if (begin == next && StartsWith(line, next, "%3D")) begin = next + 3;
  if (begin == next && !isOption) return {};
  begin = EndOf(line, begin, IsBlank);
  if (begin >= line.size() || StartsWith(line, begin, "[removed:")) return {};
  if (begin < headerEnd) {
    const std::size_t digits = EndOf(line, begin, IsDigit);
    if (digits > begin && digits + 1 == headerEnd) return {};
  }
  const std::size_t slashes = EndOf(line, begin, [](char c) { return c == '\\'; }) - begin;
  const std::size_t quoteAt = begin + slashes;
  if (quoteAt < line.size() && (line[quoteAt] == '"' || line[quoteAt] == '\'')) {
    return {quoteAt + 1, QuotedEnd(line, quoteAt + 1, line[quoteAt], slashes), removal};
  }
  if (removal == Removal::kAuthorization) {
    return {begin, std::min(line.find_first_of("\"\\", begin), line.size()), removal};
  }
  const auto isValue = [isElement](char c) { return !IsBlank(c) && !(isElement && c == '<'); };
  return {begin, EndOf(line, begin, isValue), removal};
}

// "Bearer eyJ..." and what looks like a signed token by itself.
BundleMask::Find BundleMask::Find::Credential(string_view line, std::size_t at) {
  const auto isToken = [](char c) { return IsBase64Byte(c) || c == '.'; };
  if (StartsWith(line, at, "eyJ")) {
    const std::size_t end = EndOf(line, at, isToken);
    return end - at >= kShortestToken ? Find{at, end, Removal::kToken} : Find{};
  }
  const std::size_t end = EndOf(line, at, IsLetter);
  if (end == line.size() || line[end] != ' ' || end - at > 9) return {};
  const std::string word = Lower(line.substr(at, end - at));
  const bool isScheme = std::any_of(std::begin(kSchemes), std::end(kSchemes),
                                    [&](const char* scheme) { return word == scheme; });
  const std::size_t begin = EndOf(line, end, IsBlank);
  const std::size_t credentialEnd = EndOf(line, begin, isToken);
  if (!isScheme || credentialEnd - begin < kShortestCredential) return {};
  return {begin, credentialEnd, Removal::kAuthorization};
}

BundleMask::Find BundleMask::Find::Mail(string_view line, std::size_t at) {
  const std::size_t mark = EndOf(line, at, IsMailByte);
  if (mark == at || mark >= line.size() || line[mark] != '@') return {};
  const std::size_t end = EndOf(line, mark + 1, IsNameByte);
  return end > mark + 1 ? Find{at, end, Removal::kMail} : Find{};
}

BundleMask::Find BundleMask::Find::Home(string_view line, std::size_t at) {
  for (const char* const home : kHomes) {
    if (!StartsWith(line, at, home)) continue;
    const std::size_t begin = at + std::strlen(home);
    const auto isName = [](char c) { return std::strchr("/ \t\"':;,)]}>", c) == nullptr; };
    return {begin, EndOf(line, begin, isName), Removal::kHome};
  }
  const std::size_t end = at + sizeof(kRootHome) - 1;
  const bool isRoot = StartsWith(line, at, kRootHome) && (at == 0 || !IsNameByte(line[at - 1])) &&
                      (end == line.size() || !IsNameByte(line[end]));
  return isRoot ? Find{at, end, Removal::kHome} : Find{};
}

void BundleMask::AddWord(const std::string& word) {
  if (word.size() < kShortestWord) return;
  m_words[word.substr(0, kShortestWord)].push_back(word);
  m_beginnings.set(static_cast<unsigned char>(word[0]) * 256u +
                   static_cast<unsigned char>(word[1]));
}

// The length of the longest word at a place.
std::size_t BundleMask::WordAt(string_view text, std::size_t at) const {
  if (text.size() - at < kShortestWord) return 0;
  const auto first = static_cast<unsigned char>(text[at]);
  const auto second = static_cast<unsigned char>(text[at + 1]);
  if (!m_beginnings.test(first * 256u + second)) return 0;
  const auto found = m_words.find(std::string(text.substr(at, kShortestWord)));
  if (found == m_words.end()) return 0;
  std::size_t longest = 0;
  for (const std::string& word : found->second) {
    if (StartsWith(text, at, word)) longest = std::max(longest, word.size());
  }
  return longest;
}

// The rules for what begins at `at`.
BundleMask::Find BundleMask::FindAt(string_view line, std::size_t at, std::size_t headerEnd) const {
  const char c = line[at];
  if (const std::size_t word = WordAt(line, at)) return {at, at + word, Removal::kStoredValue};
  if (c == ':') {
    const Find find = Find::UserPart(line, at);
    if (find.Is()) return find;
  }
  if (c == '/') return Find::Home(line, at);
  const bool isInside = at > 0 && IsNameByte(line[at - 1]);
  const bool beginsMail = IsMailByte(c) && (at == 0 || !IsMailByte(line[at - 1]));
  if (!isInside && IsNameByte(c)) {
    const Find named = Find::NamedSecret(line, at, headerEnd);
    if (named.Is()) return named;
    const Find credential = Find::Credential(line, at);
    if (credential.Is()) return credential;
  }
  if (beginsMail) {
    const Find mail = Find::Mail(line, at);
    if (mail.Is()) return mail;
  }
  const bool isInsideNumber = isInside || (at > 0 && line[at - 1] == ':' && c == ':');
  if (!isInsideNumber && (IsHexByte(c) || c == ':')) {
    const std::size_t end = AddressEnd(line, at);
    const bool isWhole = end == line.size() || !(IsLetter(line[end]) || IsDigit(line[end]));
    if (end > at && isWhole && !IsHarmlessAddress(line.substr(at, end - at))) {
      return {at, end, Removal::kAddress};
    }
  }
  if (StartsWith(line, at, kKeyBegin)) {
    const std::size_t words = line.find(kKeyWords, at);
    if (words == kNone) return {};
    const std::size_t begin = words + sizeof(kKeyWords) - 1;
    return {begin, std::min(line.find(kKeyEnd, begin), line.size()), Removal::kPrivateKey};
  }
  return {};
}

std::string BundleMask::Line(string_view line, bool* isInKey, Removals* removals) const {
  const auto mark = [removals](Removal removal) {
    ++(*removals)[static_cast<std::size_t>(removal)];
    return std::string("[removed: ") + NameOf(removal) + "]";
  };
  if (*isInKey) {
    // Another line than that of a key ends it, should its end be missing.
    *isInKey = !line.empty() && EndOf(line, 0, IsBase64Byte) + 1 >= line.size();
    if (StartsWith(line, 0, kKeyEnd)) *isInKey = false;
    if (*isInKey) return mark(Removal::kPrivateKey);
  }
  const std::size_t headerEnd = HeaderEnd(line);
  std::string masked;
  std::size_t pending = 0;
  for (std::size_t at = 0; at < line.size(); ++at) {
    const Find find = FindAt(line, at, headerEnd);
    if (!find.Is()) continue;
    masked.append(line, pending, find.begin - pending);
    masked += mark(find.removal);
    pending = find.end;
    at = find.end - 1;
  }
  masked.append(line, pending, kNone);
  const std::size_t key = line.rfind(kKeyBegin);
  *isInKey = key != kNone && line.find(kKeyWords, key) != kNone && line.find(kKeyEnd, key) == kNone;
  std::string shown;
  m_product.AppendMasked(masked, SensitiveWords::Controls::kEscape, &shown);
  return shown;
}

std::string BundleMask::Text(const std::string& text, Removals* removals) const {
  std::string masked;
  bool isInKey = false;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    masked += Line(string_view(text).substr(begin, end - begin), &isInKey, removals) + '\n';
    begin = end + 1;
  }
  return masked;
}

bool BundleMask::IsSecretName(string_view name) { return SecretOf(name) != Removal::kCount; }

Json::Value BundleMask::Document(const Json::Value& value, Removals* removals) const {
  bool isInKey = false;
  if (value.isString()) {
    Json::Value masked(Line(value.asString(), &isInKey, removals));
    return masked;
  }
  if (value.isArray()) {
    Json::Value masked(Json::arrayValue);
    for (const Json::Value& one : value) masked.append(Document(one, removals));
    return masked;
  }
  if (!value.isObject()) return value;
  Json::Value masked(Json::objectValue);
  for (const std::string& name : value.getMemberNames()) {
    const Removal secret = SecretOf(name);
    Json::Value& member = masked[Line(name, &isInKey, removals)];
    if (secret == Removal::kCount) {
      member = Document(value[name], removals);
    } else {
      ++(*removals)[static_cast<std::size_t>(secret)];
      member = std::string("[removed: ") + NameOf(secret) + "]";
    }
  }
  return masked;
}

}  // namespace zelctl
