// URLs in log lines.
#pragma once

#include <string>

namespace commonutil {

// The URL, or the address of a proxy, with the user information of its authority (RFC 3986
// section 3.2.1) replaced by "***": people paste credentials into both. Without a scheme the
// authority comes first; any number of slashes may follow a scheme's colon, as HTTP libraries
// take them.
inline std::string WithoutCredentials(const std::string& url) {
  std::string::size_type authority = 0;
  const std::string::size_type delimiter = url.find_first_of("/?#");
  if (delimiter != std::string::npos && delimiter > 0 && url.compare(delimiter - 1, 2, ":/") == 0) {
    authority = url.find_first_not_of('/', delimiter);
    if (authority == std::string::npos) return url;
  }
  const std::string::size_type end = url.find_first_of("/?#", authority);
  const std::string::size_type at = url.substr(0, end).rfind('@');
  if (at == std::string::npos || at < authority) return url;
  return url.substr(0, authority) + "***" + url.substr(at);
}

}  // namespace commonutil
