// What the subcommands that diagnose print: tables for people, JSON for programs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <json/value.h>

namespace zelctl {

// Columns as wide as their longest text, two blanks apart. Control bytes appear as \uXXXX.
class Table {
 public:
  enum class Align { kLeft, kRight };
  struct Column {
    std::string title;
    Align align = Align::kLeft;
  };

  explicit Table(std::vector<Column> columns) : m_columns(std::move(columns)) {}

  // As many texts as there are columns.
  void Add(const std::vector<std::string>& row);
  std::string Text() const { return Lines(false); }
  // The last column, which is sentences, is broken at blanks to keep to 80 columns.
  std::string WrappedText() const { return Lines(true); }

 private:
  std::string Lines(bool wraps) const;

  std::vector<Column> m_columns;
  std::vector<std::vector<std::string>> m_rows;
};

// "2026-11-21 08:05:17", local time.
std::string TimeText(long long secondsSinceEpoch);

// `text` broken at blanks into lines of at most 80 columns; the later ones begin with `indent`
// blanks, and so much room the first line has less.
std::string Wrapped(const std::string& text, std::size_t indent);

// One JSON document with a line end.
std::string JsonText(const Json::Value& value);

// Writes to standard output. False, with one line to standard error unless its reader has gone.
bool Print(const std::string& text);

}  // namespace zelctl
