#include "Text.h"

#include <algorithm>
#include <cerrno>
#include <iostream>

namespace zelctl {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kDelete = 0x7f;

}  // namespace

std::string JsonEscaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < kFirstPrintable || byte == kDelete) {
      escaped += "\\u00";
      escaped += kHexDigits[byte >> 4];
      escaped += kHexDigits[byte & 0xf];
      continue;
    }
    if (c == '"' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string Quoted(const std::string& text) { return '"' + JsonEscaped(text) + '"'; }

std::size_t Width(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

std::string Printable(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte >= kFirstPrintable && byte != kDelete) || c == '\t') {
      shown += c;
      continue;
    }
    shown += "\\x";
    shown += kHexDigits[byte >> 4];
    shown += kHexDigits[byte & 0xf];
  }
  return shown;
}

std::string Counted(std::size_t count, const std::string& one) {
  return std::to_string(count) + ' ' + one + (count == 1 ? "" : "s");
}

void Complain(const std::string& text) { std::cerr << "zelctl: " + text + '\n' << std::flush; }

void ComplainOfOutput() {
  if (errno != EPIPE) Complain("cannot write to standard output");
}

}  // namespace zelctl
