#include <cstddef>

#include "util/PublicUtil.h"

namespace commonutil {

namespace {

constexpr char32_t kLastCodePoint = 0x10FFFF;

// The forms of a UTF-8 sequence (RFC 3629 section 3), shortest first.
struct Utf8Form {
  unsigned char leadMask;  // the lead byte's bits that tell the form
  unsigned char lead;      // what they are
  std::size_t length;      // in bytes
  char32_t first;          // the first code point that needs this form
};
constexpr Utf8Form kForms[] = {
    {0x80, 0x00, 1, 0x0},
    {0xE0, 0xC0, 2, 0x80},
    {0xF0, 0xE0, 3, 0x800},
    {0xF8, 0xF0, 4, 0x10000},
};

bool IsSurrogate(char32_t point) { return point >= 0xD800 && point <= 0xDFFF; }

bool IsCodePoint(char32_t point) { return point <= kLastCodePoint && !IsSurrogate(point); }

const Utf8Form* FormOfLead(unsigned char lead) {
  for (const Utf8Form& form : kForms) {
    if ((lead & form.leadMask) == form.lead) return &form;
  }
  return nullptr;
}

const Utf8Form& FormOfCodePoint(char32_t point) {
  const Utf8Form* fitting = &kForms[0];
  for (const Utf8Form& form : kForms) {
    if (point >= form.first) fitting = &form;
  }
  return *fitting;
}

// Reads the code point at `position` and moves on behind it; false for an invalid sequence.
bool ReadCodePoint(const std::string& text, std::size_t& position, char32_t& point) {
  const unsigned char lead = static_cast<unsigned char>(text[position]);
  const Utf8Form* const form = FormOfLead(lead);
  if (!form || text.size() - position < form->length) return false;
  point = static_cast<char32_t>(lead & ~form->leadMask);
  for (std::size_t i = 1; i < form->length; ++i) {
    const unsigned char next = static_cast<unsigned char>(text[position + i]);
    if ((next & 0xC0) != 0x80) return false;
    point = (point << 6) | (next & 0x3F);
  }
  position += form->length;
  return point >= form->first && IsCodePoint(point);
}

void AppendCodePoint(char32_t point, std::string& text) {
  const Utf8Form& form = FormOfCodePoint(point);
  std::size_t shift = 6 * (form.length - 1);
  text.push_back(static_cast<char>(form.lead | (point >> shift)));
  while (shift > 0) {
    shift -= 6;
    text.push_back(static_cast<char>(0x80 | ((point >> shift) & 0x3F)));
  }
}

}  // namespace

// Here because the text need not be converted to be read.
std::string PublicUtil::filterWordUsername(const std::string& text) {
  std::string masked;
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t begin = position;
    char32_t point = 0;
    if (!ReadCodePoint(text, position, point)) return {};
    if (begin == 0) {
      masked.reserve(text.size());
      masked.append(text, 0, position);
    } else {
      masked += '*';
    }
  }
  return masked;
}

std::wstring PublicUtil::UTF8ToWstring(const std::string& text) {
  std::wstring wide;
  std::size_t position = 0;
  while (position < text.size()) {
    char32_t point = 0;
    if (!ReadCodePoint(text, position, point)) return {};
    wide.push_back(static_cast<wchar_t>(point));
  }
  return wide;
}

std::string PublicUtil::WstringToUTF8(const std::wstring& text) {
  std::string bytes;
  for (const wchar_t character : text) {
    const char32_t point = static_cast<char32_t>(character);
    if (!IsCodePoint(point)) return {};
    AppendCodePoint(point, bytes);
  }
  return bytes;
}

}  // namespace commonutil
