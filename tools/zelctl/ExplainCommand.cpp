#include "ExplainCommand.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <optional>
#include <system_error>

#include "Arguments.h"
#include "Options.h"
#include "Report.h"
#include "Text.h"
#include "publicInc/GlobalErrorCodeTable.h"

namespace zelctl {
namespace {

struct CodeText {
  std::int32_t code;
  const char* name;
  const char* where;
  const char* meaning;
  const char* cause;
  const char* remedy;
  const char* log;  // a text of the line to look for, or ""
};

// All global codes from `first` to `last`.
struct CodeFamily {
  std::int32_t first;
  std::int32_t last;
};

#include "CodeCatalogue.inc"

constexpr char kJsonOption[] = "--json";
constexpr std::size_t kIndent = 9;

std::optional<std::int32_t> NumberOf(const std::string& text) {
  std::int32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && stop == end) return number;
  return std::nullopt;
}

std::vector<CodeText> EntriesOf(const std::string& wanted) {
  const std::optional<std::int32_t> number = NumberOf(wanted);
  std::vector<CodeText> entries;
  std::copy_if(std::begin(kCodeTexts), std::end(kCodeTexts), std::back_inserter(entries),
               [&](const CodeText& entry) {
                 return number ? entry.code == *number
                               : ::strcasecmp(wanted.c_str(), entry.name) == 0;
               });
  return entries;
}

bool IsGlobal(std::int32_t code) {
  return std::any_of(std::begin(commonutil::kGlobalErrorCodeRows),
                     std::end(commonutil::kGlobalErrorCodeRows),
                     [code](const auto& row) { return row.code == code; });
}

// Null for a code that stands alone.
const CodeFamily* FamilyOf(std::int32_t code) {
  const auto* const found = std::find_if(
      std::begin(kCodeFamilies), std::end(kCodeFamilies),
      [code](const auto& family) { return family.first <= code && code <= family.last; });
  return found == std::end(kCodeFamilies) ? nullptr : found;
}

std::string Line(const std::string& title, const std::string& text) {
  return title + std::string(kIndent - title.size(), ' ') + Wrapped(text, kIndent) + '\n';
}

std::string EntryText(const CodeText& entry) {
  std::string text = std::to_string(entry.code) + "  " + entry.name + '\n' +
                     Line("where", entry.where) + Line("meaning", entry.meaning) +
                     Line("cause", entry.cause) + Line("remedy", entry.remedy);
  if (*entry.log != '\0') text += Line("log", Quoted(entry.log));
  return text;
}

std::string GlobalText(std::int32_t code) {
  const CodeFamily* const family = FamilyOf(code);
  return Wrapped(std::to_string(code) +
                     " is a code of the SDK's libraries: known, and passed on unchanged; the "
                     "library that reports it documents it",
                 0) +
         '\n' +
         Line("family", family == nullptr ? "none, it stands alone"
                                          : std::to_string(family->first) + " to " +
                                                std::to_string(family->last));
}

Json::Value EntryJson(const CodeText& entry) {
  Json::Value value(Json::objectValue);
  value["name"] = entry.name;
  value["where"] = entry.where;
  value["meaning"] = entry.meaning;
  value["cause"] = entry.cause;
  value["remedy"] = entry.remedy;
  value["log"] = entry.log;
  return value;
}

Json::Value CodeJson(std::int32_t code, const std::vector<CodeText>& entries) {
  Json::Value value(Json::objectValue);
  value["code"] = code;
  value["global"] = IsGlobal(code);
  if (const CodeFamily* const family = FamilyOf(code); family != nullptr && IsGlobal(code)) {
    value["family"]["first"] = family->first;
    value["family"]["last"] = family->last;
  }
  value["entries"] = Json::Value(Json::arrayValue);
  for (const CodeText& entry : entries) value["entries"].append(EntryJson(entry));
  return value;
}

std::string CodeTextOf(std::int32_t code, const std::vector<CodeText>& entries) {
  if (entries.empty()) return GlobalText(code);
  std::string text;
  for (const CodeText& entry : entries) text += (text.empty() ? "" : "\n") + EntryText(entry);
  return text;
}

}  // namespace

bool ExplainCode(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments arguments(given, {kJsonOption});
  if (arguments.Words().size() != 1) {
    throw UsageError("explain needs one CODE, a number or a name such as kBadParameter");
  }
  const std::string& wanted = arguments.Words()[0];
  const std::vector<CodeText> entries = EntriesOf(wanted);
  const std::optional<std::int32_t> number = NumberOf(wanted);
  if (entries.empty() && !(number && IsGlobal(*number))) {
    Complain(Quoted(wanted) +
             " is no code of this library, whose codes docs/codes.md lists, and not in the table "
             "of the SDK's codes");
    return false;
  }
  const std::int32_t code = number ? *number : entries[0].code;
  return Print(arguments.Has(kJsonOption) ? JsonText(CodeJson(code, entries))
                                          : CodeTextOf(code, entries));
}

}  // namespace zelctl
