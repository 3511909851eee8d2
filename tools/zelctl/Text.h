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

// Writes "zelctl: <text>" as one line to standard error.
void Complain(const std::string& text);

}  // namespace zelctl
