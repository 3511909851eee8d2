// HTTP exchanges of the platform's own libraries: one call, one answer, on the caller's thread,
// which blocks for at most the settings' total time-out. Any thread; calls share nothing.
//
// Only http and https are spoken, redirects are not followed, TLS peers are verified, and the
// environment's proxy settings have no say. At most kHttpKeptBytes of an answer are ever kept,
// headers and body together.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zel_platform/http.h"

inline constexpr std::size_t kHttpKeptBytes = std::size_t{64} * 1024;

enum class HttpMethod { kGet, kPost };

// One part of a multipart/form-data body: the text, or the content of a regular file.
struct HttpPart {
  std::string name;
  std::string text;
  std::string filePath;  // empty: the text is sent
  std::string fileName;  // what the server is told; empty: the last part of the path
};

struct HttpCall {
  HttpMethod method = HttpMethod::kGet;
  std::string url;
  std::vector<std::string> headers;       // "Name: value"
  std::string body;                       // of a POST without parts
  std::vector<HttpPart> parts;            // not empty: a multipart POST
  const ORB_HTTP_PROXY* proxy = nullptr;  // null: direct
};

// An answer whose body is longer than what is kept is complete: the rest is not waited for.
// Headers beyond the limit, a time-out and a connection closed half-way are failures.
struct HttpAnswer {
  int curlCode = 0;  // a CURLcode; 0: an exchange completed, whatever its status
  std::uint32_t status = 0;
  std::string headers;  // of the last response, as received
  std::string body;
  std::int64_t retryAfterSeconds = 0;  // the Retry-After header; 0: none
};

// May throw std::bad_alloc. A failure is logged in one line, without query and credentials.
HttpAnswer HttpSend(const HttpCall& call);

// Opens a tunnel to host:port through `proxy` and closes it. A CURLcode, 0 when the proxy agreed.
int HttpTunnel(const ORB_HTTP_PROXY& proxy, const std::string& host, unsigned short port);

// The URL for a log line: everything up to the last "@" after the scheme is "***", and query and
// fragment are left out.
std::string HttpMaskedUrl(const std::string& url);
