// Small helpers for text that comes from outside.
#pragma once

#include <cstddef>
#include <string>

namespace zelctl {

// `text` as the inside of a JSON string: quotes, backslashes and control bytes escaped.
std::string JsonEscaped(const std::string& text);

// `text` in quotes and on one line, for a diagnostic.
std::string Quoted(const std::string& text);

// In characters: every byte of UTF-8 counts but the continuations.
std::size_t Width(const std::string& text);

// Control bytes but tabs as \xNN, so that a foreign line cannot steer the terminal.
std::string Printable(const std::string& text);

// "1 file", "2 files".
std::string Counted(std::size_t count, const std::string& one);

// Writes "zelctl: <text>" as one line to standard error.
void Complain(const std::string& text);

// After standard output has failed. Says nothing of a reader that has gone, such as head.
void ComplainOfOutput();

}  // namespace zelctl
