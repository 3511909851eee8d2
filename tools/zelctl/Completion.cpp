#include "Completion.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <set>
#include <sstream>

#include "MessageTexts.h"

namespace zelctl {
namespace {

constexpr char kBlanks[] = " \t";
constexpr char kCommandKey[] = "cmd";

bool BeginsWith(const std::string& text, const std::string& beginning) {
  return text.size() >= beginning.size() &&
         ::strncasecmp(text.c_str(), beginning.c_str(), beginning.size()) == 0;
}

// What stands between the beginning of a request and the cursor.
class OpenRequest {
 public:
  struct Level {
    bool isObject;
    std::string key;             // whose value is read; "" before one
    std::set<std::string> keys;  // all so far
    bool isAtValue = false;      // behind a colon
    bool isValueDone = false;
  };

  explicit OpenRequest(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) at = Read(text, at);
  }

  const std::vector<Level>& Levels() const { return m_levels; }
  // Not closed yet; with its quote when it is a text.
  const std::string& Word() const { return m_word; }

  // "param.list[]", of the innermost object.
  std::string Path() const {
    std::string path;
    for (std::size_t i = 0; i + 1 < m_levels.size(); ++i) {
      if (!m_levels[i].isObject) {
        path += "[]";
      } else {
        path += (path.empty() ? "" : ".") + m_levels[i].key;
      }
    }
    return path;
  }

 private:
  std::size_t Read(const std::string& text, std::size_t at) {
    const char c = text[at];
    if (c == '"') return ReadText(text, at);
    if (c == '{' || c == '[') {
      m_levels.push_back({c == '{', {}, {}});
    } else if (m_levels.empty()) {
      return text.size();
    } else if (c == '}' || c == ']') {
      m_levels.pop_back();
      EndValue();
    } else if (c == ':') {
      m_levels.back().isAtValue = true;
    } else if (c == ',') {
      Level& level = m_levels.back();
      level.key.clear();
      level.isAtValue = level.isValueDone = false;
    } else if (std::string(kBlanks).find(c) == std::string::npos) {
      return ReadBare(text, at);
    }
    return at + 1;
  }

  std::size_t ReadText(const std::string& text, std::size_t at) {
    std::size_t end = at + 1;
    while (end < text.size() && text[end] != '"') end += text[end] == '\\' ? 2 : 1;
    if (end >= text.size()) {
      m_word = text.substr(at);
      return text.size();
    }
    EndWord(text.substr(at + 1, end - at - 1));
    return end + 1;
  }

  std::size_t ReadBare(const std::string& text, std::size_t at) {
    const std::size_t end = text.find_first_of(" \t,:{}[]\"", at);
    if (end == std::string::npos) {
      m_word = text.substr(at);
      return text.size();
    }
    EndWord(text.substr(at, end - at));
    return end;
  }

  void EndWord(const std::string& word) {
    if (m_levels.empty()) return;
    Level& level = m_levels.back();
    if (!level.isObject || level.isAtValue) return EndValue();
    level.key = word;
    level.keys.insert(word);
  }

  void EndValue() {
    if (!m_levels.empty()) m_levels.back().isValueDone = true;
  }

  std::vector<Level> m_levels;
  std::string m_word;
};

// The command that the line names under "cmd", wherever that stands; null without one.
const RequestText* CommandOf(const std::string& line) {
  const std::string key = std::string("\"") + kCommandKey + '"';
  std::size_t at = line.find(key);
  if (at == std::string::npos) return nullptr;
  at = line.find_first_not_of(": \t", at + key.size());
  if (at == std::string::npos) return nullptr;
  unsigned number = 0;
  const auto [end, error] = std::from_chars(line.data() + at, line.data() + line.size(), number);
  (void)end;
  return error == std::errc() ? FindRequest(number) : nullptr;
}

Candidate CommandCandidate(const RequestText& request, const std::string& text) {
  return {text, request.name, request.title};
}

// What all candidates begin with.
std::string CommonBeginning(const std::vector<Candidate>& candidates) {
  std::string common = candidates.front().text;
  for (const Candidate& candidate : candidates) {
    std::size_t same = 0;
    while (same < common.size() && same < candidate.text.size() &&
           std::tolower(common[same]) == std::tolower(candidate.text[same])) {
      ++same;
    }
    common.resize(same);
  }
  return common;
}

// The one candidate with `ending` behind it; of several what they share, and the choice.
Completion Choose(const std::string& word, const std::vector<Candidate>& candidates,
                  const std::string& ending) {
  if (candidates.empty()) return {};
  if (candidates.size() == 1) return {word.size(), candidates.front().text + ending, {}};
  const std::string common = CommonBeginning(candidates);
  if (common.size() > word.size()) return {word.size(), common, candidates};
  return {0, "", candidates};
}

std::vector<Candidate> CommandsNamed(const std::string& word) {
  std::vector<Candidate> found;
  for (const RequestText& request : AllRequests()) {
    const std::string number = std::to_string(request.number);
    if (number == word) return {CommandCandidate(request, number)};
    if (BeginsWith(request.name, word)) {
      found.push_back(word.empty() ? CommandCandidate(request, number)
                                   : Candidate{request.name, number, request.title});
    } else if (BeginsWith(number, word)) {
      found.push_back(CommandCandidate(request, number));
    }
  }
  // A name that others continue is one all the same.
  for (const Candidate& candidate : found) {
    if (::strcasecmp(candidate.text.c_str(), word.c_str()) == 0) return {candidate};
  }
  return found;
}

Completion CompleteCommand(const std::string& word) {
  const std::vector<Candidate> found = CommandsNamed(word);
  if (found.size() != 1) return Choose(word, found, "");
  return {word.size(), FindRequest(found.front().text)->example, {}};
}

Completion CompleteWord(const std::string& line, const std::vector<Candidate>& words) {
  const std::size_t blank = line.find_first_of(kBlanks);
  if (blank != std::string::npos) {
    const std::string word = line.substr(line.find_last_of(kBlanks) + 1);
    return line.substr(0, blank) == ":help" ? Choose(word, CommandsNamed(word), "") : Completion{};
  }
  std::vector<Candidate> found;
  std::copy_if(words.begin(), words.end(), std::back_inserter(found),
               [&](const Candidate& one) { return BeginsWith(one.text, line); });
  return Choose(line, found, " ");
}

// What follows the colon behind a key of this type.
std::string Opening(const KeyText& key) {
  const std::string type = key.type;
  if (*key.values != '\0') return "";
  if (type == "object") return "{";
  if (type == "list") return "[";
  return BeginsWith(type, "text") ? "\"" : "";
}

const KeyText* FindKey(const RequestText& request, const std::string& path) {
  const auto* const found = std::find_if(request.keys.begin(), request.keys.end(),
                                         [&](const KeyText& key) { return path == key.path; });
  return found == request.keys.end() ? nullptr : found;
}

// Of the object at `path`, without those that `level` has. Their type is in the text's place.
std::vector<const KeyText*> KeysAt(const RequestText& request, const std::string& path,
                                   const OpenRequest::Level& level) {
  const std::string beginning = path.empty() ? "" : path + '.';
  std::vector<const KeyText*> found;
  for (const KeyText& key : request.keys) {
    const std::string whole = key.path;
    if (whole.compare(0, beginning.size(), beginning) != 0) continue;
    const std::string name = whole.substr(beginning.size());
    if (name.find_first_of(".[") == std::string::npos && level.keys.count(name) == 0) {
      found.push_back(&key);
    }
  }
  return found;
}

std::string NameOf(const KeyText& key) {
  const std::string whole = key.path;
  return whole.substr(whole.rfind('.') + 1);
}

Completion CompleteKey(const RequestText& request, const OpenRequest& open) {
  const OpenRequest::Level& level = open.Levels().back();
  const std::string& word = open.Word();
  const std::string quoted = !word.empty() && word[0] == '"' ? word : '"' + word;
  std::vector<Candidate> found;
  std::string ending;
  for (const KeyText* key : KeysAt(request, open.Path(), level)) {
    const std::string text = '"' + NameOf(*key) + '"';
    if (!BeginsWith(text, quoted)) continue;
    found.push_back({text, key->type, key->meaning});
    ending = ": " + Opening(*key);
  }
  return Choose(word, found, ending);
}

std::vector<Candidate> ValuesOf(const KeyText& key) {
  std::vector<Candidate> found;
  if (std::string(key.path) == kCommandKey) {
    for (const RequestText& request : AllRequests()) {
      found.push_back(CommandCandidate(request, std::to_string(request.number)));
    }
    return found;
  }
  std::istringstream values(key.values);
  for (std::string value; values >> value;) found.push_back({value, key.type, key.meaning});
  return found;
}

Completion CompleteValue(const RequestText& request, const OpenRequest& open) {
  const std::string path = open.Path();
  const std::string& name = open.Levels().back().key;
  const KeyText* const key = FindKey(request, path.empty() ? name : path + '.' + name);
  if (key == nullptr) return {};
  const std::string& word = open.Word();
  std::vector<Candidate> found;
  for (const Candidate& value : ValuesOf(*key)) {
    if (value.text == word) return {0, ", \"", {}};  // 1 is whole, though 11 begins so
    if (BeginsWith(value.text, word)) found.push_back(value);
  }
  if (found.empty() && word.empty()) return {0, Opening(*key), {}};
  return Choose(word, found, "");
}

Completion CompleteRequest(const std::string& line) {
  const OpenRequest open(line);
  if (open.Levels().empty() || !open.Levels().back().isObject) return {};
  const RequestText* const named = CommandOf(line);
  const RequestText& request = named != nullptr ? *named : *AllRequests().begin();
  const OpenRequest::Level& level = open.Levels().back();
  if (level.isValueDone) {
    const bool hasMore = !KeysAt(request, open.Path(), level).empty();
    return {0, hasMore ? ", \"" : "}", {}};
  }
  if (level.isAtValue) return CompleteValue(request, open);
  return level.key.empty() ? CompleteKey(request, open) : Completion{0, ": ", {}};
}

}  // namespace

Completion Complete(const std::string& line, const std::vector<Candidate>& words) {
  const std::size_t begin = std::min(line.find_first_not_of(kBlanks), line.size());
  const std::string text = line.substr(begin);
  if (!text.empty() && text[0] == ':') return CompleteWord(text, words);
  if (!text.empty() && text[0] == '{') return CompleteRequest(text);
  return CompleteCommand(text);
}

}  // namespace zelctl
