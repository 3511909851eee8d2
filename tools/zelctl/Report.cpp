#include "Report.h"

#include <algorithm>
#include <ctime>
#include <iostream>
#include <sstream>

#include <json/writer.h>

#include "Text.h"

namespace zelctl {
namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kLineColumns = 80;

// Quotes and backslashes stand as they are in a table.
std::string WithoutControls(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    const std::string one(1, c);
    shown += c == '"' || c == '\\' ? one : JsonEscaped(one);
  }
  return shown;
}

std::string Padded(const std::string& text, std::size_t width, Table::Align align) {
  const std::string blanks(width - Width(text), ' ');
  return align == Table::Align::kLeft ? text + blanks : blanks + text;
}

}  // namespace

void Table::Add(const std::vector<std::string>& row) {
  std::vector<std::string> shown;
  shown.reserve(row.size());
  for (const std::string& text : row) shown.push_back(WithoutControls(text));
  m_rows.push_back(std::move(shown));
}

std::string Table::Lines(bool wraps) const {
  std::vector<std::vector<std::string>> lines(1);
  lines[0].reserve(m_columns.size());
  for (const Column& column : m_columns) lines[0].push_back(column.title);
  lines.insert(lines.end(), m_rows.begin(), m_rows.end());
  std::vector<std::size_t> widths(m_columns.size(), 0);
  for (const auto& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], Width(line[i]));
  }
  std::string text;
  for (const auto& line : lines) {
    std::string shown;
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (i != 0) shown.append(kGap, ' ');
      const bool isWrapped = wraps && i + 1 == line.size();
      shown += isWrapped ? Wrapped(line[i], Width(shown))
                         : Padded(line[i], widths[i], m_columns[i].align);
    }
    shown.erase(shown.find_last_not_of(' ') + 1);
    text += shown + '\n';
  }
  return text;
}

std::string TimeText(long long secondsSinceEpoch) {
  const auto seconds = static_cast<std::time_t>(secondsSinceEpoch);
  struct tm local = {};
  if (localtime_r(&seconds, &local) == nullptr) return "?";
  char text[32] = "";
  (void)std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);  // "" when it does not fit
  return text;
}

std::string Wrapped(const std::string& text, std::size_t indent) {
  std::istringstream words(text);
  std::string wrapped;
  std::size_t column = indent;
  for (std::string word; words >> word; column += Width(word)) {
    if (column != indent && column + 1 + Width(word) > kLineColumns) {
      wrapped += '\n' + std::string(indent, ' ');
      column = indent;
    } else if (column != indent) {
      wrapped += ' ';
      ++column;
    }
    wrapped += word;
  }
  return wrapped;
}

std::string JsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  return Json::writeString(builder, value) + '\n';
}

bool Print(const std::string& text) {
  if (std::cout << text << std::flush) return true;
  ComplainOfOutput();
  return false;
}

}  // namespace zelctl
