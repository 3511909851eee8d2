// URLs in log lines.
#pragma once

#include <string>

namespace commonutil {

// The URL with the user information of its authority (RFC 3986 section 3.2.1) replaced by "***":
// people paste credentials into URLs.
inline std::string WithoutCredentials(const std::string& url) {
  const std::string::size_type scheme = url.find("://");
  const std::string::size_type authority = scheme == std::string::npos ? 0 : scheme + 3;
  const std::string::size_type end = url.find_first_of("/?#", authority);
  const std::string::size_type at = url.substr(0, end).rfind('@');
  if (at == std::string::npos || at < authority) return url;
  return url.substr(0, authority) + "***" + url.substr(at);
}

}  // namespace commonutil
