// IPv4 addresses of the usual form: four decimal numbers joined by dots, without signs and blanks.
#pragma once

#include <cstddef>
#include <string_view>

namespace commonutil {

constexpr std::size_t kLongestIPv4 = 15;  // "255.255.255.255"

// Where the last of the four numbers begins; 0 for any other text.
inline std::size_t LastOctetOf(std::string_view text) {
  if (text.size() > kLongestIPv4) return 0;
  constexpr int kNone = -1;
  int dots = 0;
  int octet = kNone;
  std::size_t begin = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '.' && octet != kNone) {
      ++dots;
      octet = kNone;
      begin = i + 1;
    } else if (text[i] >= '0' && text[i] <= '9') {
      octet = (octet == kNone ? 0 : octet * 10) + (text[i] - '0');
      if (octet > 255) return 0;
    } else {
      return 0;
    }
  }
  return dots == 3 && octet != kNone ? begin : 0;
}

}  // namespace commonutil
