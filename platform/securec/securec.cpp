#include "zel_platform/securec.h"

#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

// The smallest number whose negative is an int and which itself is none.
constexpr long long kBeyondInt = -static_cast<long long>(INT_MIN);
constexpr int kTextEnded = -1;

bool IsUsable(const void* buffer, rsize_t size) {
  return buffer != nullptr && size != 0 && size <= kRsizeMax;
}

bool Overlap(const void* first, std::size_t firstSize, const void* second, std::size_t secondSize) {
  const auto a = reinterpret_cast<std::uintptr_t>(first);
  const auto b = reinterpret_cast<std::uintptr_t>(second);
  return a < b ? b - a < firstSize : a - b < secondSize;
}

errno_t FailedText(char* dest, errno_t error) {
  dest[0] = '\0';
  return error;
}

// Copies up to `count` characters; fails when they do not fit with their NUL.
errno_t CopyText(char* dest, rsize_t destMax, const char* src, rsize_t count) {
  if (!IsUsable(dest, destMax)) return EINVAL;
  if (src == nullptr || count > kRsizeMax) return FailedText(dest, EINVAL);
  const std::size_t length = ::strnlen(src, std::min(count, destMax));
  if (length == destMax) return FailedText(dest, ERANGE);
  const std::size_t read = length < count ? length + 1 : length;
  if (Overlap(dest, length + 1, src, read)) return FailedText(dest, EINVAL);
  ::memcpy(dest, src, length);
  dest[length] = '\0';
  return 0;
}

errno_t FailedBytes(void* dest, rsize_t destMax, errno_t error) {
  ::memset(dest, 0, destMax);
  return error;
}

// Fills in a way that the compiler must take for read afterwards.
void FillForGood(void* dest, int c, std::size_t count) {
  ::memset(dest, c, count);
  __asm__ __volatile__("" : : "r"(dest) : "memory");
}

// The C locale's white space and digits, whatever the host's locale is.
bool IsBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

const char* SkipBlanks(const char* at) {
  while (IsBlank(*at)) ++at;
  return at;
}

// Reads a decimal number with an optional sign and moves `at` behind it. A number that no
// int can hold gives the nearest int.
bool ScanInt(const char*& at, int* out) {
  const char* digit = *at == '-' || *at == '+' ? at + 1 : at;
  if (out == nullptr || !IsDigit(*digit)) return false;
  long long value = 0;
  for (; IsDigit(*digit); ++digit) value = std::min(value * 10 + (*digit - '0'), kBeyondInt);
  if (*at == '-') value = -value;
  *out = static_cast<int>(std::min<long long>(value, INT_MAX));
  at = digit;
  return true;
}

// Copies the characters up to the next white space and moves `at` behind them.
bool ScanToken(const char*& at, char* out, rsize_t size) {
  if (!IsUsable(out, size)) return false;
  const char* end = at;
  while (*end != '\0' && !IsBlank(*end)) ++end;
  const auto length = static_cast<std::size_t>(end - at);
  if (length >= size) {
    out[0] = '\0';
    return false;
  }
  ::memcpy(out, at, length);
  out[length] = '\0';
  at = end;
  return true;
}

int Scan(const char* at, const char* fmt, va_list arguments) {
  int conversions = 0;
  for (; *fmt != '\0'; ++fmt) {
    if (IsBlank(*fmt)) {
      at = SkipBlanks(at);
      continue;
    }
    const bool converts = *fmt == '%';
    if (converts) at = SkipBlanks(at);
    if (*at == '\0') return conversions == 0 ? kTextEnded : conversions;
    if (!converts) {
      if (*at != *fmt) return conversions;
      ++at;
      continue;
    }
    ++fmt;
    if (*fmt == 'd') {
      if (!ScanInt(at, va_arg(arguments, int*))) return conversions;
    } else if (*fmt == 's') {
      char* const token = va_arg(arguments, char*);
      if (!ScanToken(at, token, va_arg(arguments, rsize_t))) return conversions;
    } else {
      return conversions;
    }
    ++conversions;
  }
  return conversions;
}

}  // namespace

errno_t strcpy_s(char* dest, rsize_t destMax, const char* src) {
  return CopyText(dest, destMax, src, kRsizeMax);
}

errno_t strncpy_s(char* dest, rsize_t destMax, const char* src, rsize_t count) {
  return CopyText(dest, destMax, src, count);
}

errno_t memcpy_s(void* dest, rsize_t destMax, const void* src, rsize_t count) {
  if (!IsUsable(dest, destMax)) return EINVAL;
  if (src == nullptr || count > kRsizeMax) return FailedBytes(dest, destMax, EINVAL);
  if (count > destMax) return FailedBytes(dest, destMax, ERANGE);
  if (count == 0) return 0;
  if (Overlap(dest, count, src, count)) return FailedBytes(dest, destMax, EINVAL);
  ::memcpy(dest, src, count);
  return 0;
}

errno_t memset_s(void* dest, rsize_t destMax, int c, rsize_t count) {
  if (!IsUsable(dest, destMax)) return EINVAL;
  FillForGood(dest, c, std::min(count, destMax));
  if (count > kRsizeMax) return EINVAL;
  return count > destMax ? ERANGE : 0;
}

int sprintf_s(char* dest, rsize_t destMax, const char* fmt, ...) {
  if (!IsUsable(dest, destMax)) return -1;
  dest[0] = '\0';
  if (fmt == nullptr) return -1;
  va_list arguments;
  va_start(arguments, fmt);
  const int length = ::vsnprintf(dest, destMax, fmt, arguments);
  va_end(arguments);
  if (length >= 0 && static_cast<rsize_t>(length) < destMax) return length;
  dest[0] = '\0';
  return -1;
}

int sscanf_s(const char* text, const char* fmt, ...) {
  if (text == nullptr || fmt == nullptr) return kTextEnded;
  va_list arguments;
  va_start(arguments, fmt);
  const int conversions = Scan(text, fmt, arguments);
  va_end(arguments);
  return conversions;
}

char* strtok_s(char* s, const char* delim, char** context) {
  if (delim == nullptr || context == nullptr) return nullptr;
  if (s == nullptr && *context == nullptr) return nullptr;
  return ::strtok_r(s, delim, context);
}
