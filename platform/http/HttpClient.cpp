#include "http/HttpClient.h"

#include <arpa/inet.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>

#include "config/settings.h"
#include "crypto/openssl_handle.h"
#include "http/curl_handle.h"
#include "zel_platform/logger.h"

namespace {

constexpr int kConnectTimeoutMs = 10000;
constexpr int kTotalTimeoutMs = 30000;
constexpr char kSchemes[] = "http,https";
constexpr char kSchemeEnd[] = "://";
constexpr std::int32_t kMaxPort = 65535;

// TLS writes raise SIGPIPE when the peer has gone, which would end a host that never asked for
// it; the end of a connection is such a write too. The signal stays blocked for as long as this
// thread has a handle, and is taken back if it came.
class WithoutSigpipe {
 public:
  WithoutSigpipe() {
    (void)::sigemptyset(&m_pipe);
    (void)::sigaddset(&m_pipe, SIGPIPE);
    sigset_t pending;
    (void)::sigpending(&pending);
    m_wasPending = ::sigismember(&pending, SIGPIPE) == 1;
    (void)::pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
  }
  WithoutSigpipe(const WithoutSigpipe&) = delete;
  WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;
  ~WithoutSigpipe() {
    const timespec noWait = {};
    while (!m_wasPending && ::sigtimedwait(&m_pipe, nullptr, &noWait) < 0 && errno == EINTR) {
    }
    (void)::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  }

 private:
  sigset_t m_pipe;
  sigset_t m_before;
  bool m_wasPending = false;
};

// libcurl is never cleaned up: threads may be in an exchange while the process exits. For the same
// reason OpenSSL is set up first, without its exit handler.
CURLcode SetUpOnce() {
  static const CURLcode result = [] {
    const OpenSslScope opensslFirst;
    return curl_global_init(CURL_GLOBAL_DEFAULT);
  }();
  return result;
}

// Null when there is no memory or no usable libcurl.
CurlHandle NewHandle() { return CurlHandle(SetUpOnce() == CURLE_OK ? curl_easy_init() : nullptr); }

// libcurl takes 0 for "no limit", which is not on offer.
long TimeoutMs(const char* path, int defaultMs) {
  const int value = orb_config_int(path, defaultMs);
  return value > 0 ? value : defaultMs;
}

void SetCommon(CurlOptions* options) {
  options->Set(CURLOPT_NOSIGNAL, 1L);
  options->Set(CURLOPT_QUICK_EXIT, 1L);  // a name server that is silent is left to itself
  options->Set(CURLOPT_PROTOCOLS_STR, kSchemes);
  options->Set(CURLOPT_FOLLOWLOCATION, 0L);
  // NTLM and Negotiate authenticate a connection, which HTTP/2 would not keep to itself.
  options->Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  options->Set(CURLOPT_CONNECTTIMEOUT_MS, TimeoutMs("http.connectTimeoutMs", kConnectTimeoutMs));
  const std::string caFile = orb_config_text("http.caFile", "");
  if (caFile.empty()) return;
  options->Set(CURLOPT_CAINFO, caFile.c_str());
  options->Set(CURLOPT_PROXY_CAINFO, caFile.c_str());
}

// The time at which an exchange ends, whatever the peer does. libcurl's own time-out is not looked
// at while a proxy goes on sending an answer to CONNECT, its progress function is.
class Deadline {
 public:
  explicit Deadline(CurlOptions* options) {
    options->Set(CURLOPT_TIMEOUT_MS, m_totalMs);
    options->Set(CURLOPT_NOPROGRESS, 0L);
    options->Set(CURLOPT_XFERINFOFUNCTION, &IsOver);
    options->Set(CURLOPT_XFERINFODATA, this);
  }
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  static int IsOver(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return Clock::now() >= static_cast<const Deadline*>(self)->m_end ? 1 : 0;
  }

  const long m_totalMs = TimeoutMs("http.totalTimeoutMs", kTotalTimeoutMs);
  const Clock::time_point m_end = Clock::now() + std::chrono::milliseconds(m_totalMs);
};

template <std::size_t N>
bool IsTerminated(const char (&text)[N]) {
  return ::strnlen(text, N) < N;
}

// A host as it stands in a URL: with brackets around an IPv6 address that has none.
std::string UrlHost(const std::string& host) {
  const std::string address = host.substr(0, host.find('%'));  // without its zone
  in6_addr ignored;
  return ::inet_pton(AF_INET6, address.c_str(), &ignored) == 1 ? "[" + host + "]" : host;
}

// "scheme://host:port" of a proxy whose address may lack the scheme; null when it is none.
CurlText ProxyUrl(const ORB_HTTP_PROXY& proxy) {
  std::string address = proxy.address;
  if (address.find(kSchemeEnd) == std::string::npos) address = "http://" + UrlHost(address);
  const CurlUrl parsed(curl_url());
  char* scheme = nullptr;
  if (curl_url_set(parsed.get(), CURLUPART_URL, address.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) {
    return nullptr;
  }
  const CurlText owned(scheme);
  if (::strcmp(scheme, "http") != 0 && ::strcmp(scheme, "https") != 0) return nullptr;
  // Accounts come in the block's own fields; a path means nothing to a proxy.
  for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS,
                               CURLUPART_PATH, CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
    (void)curl_url_set(parsed.get(), part, nullptr, 0);  // taking a part away cannot fail
  }
  const std::string port = std::to_string(proxy.port);
  char* url = nullptr;
  if (curl_url_set(parsed.get(), CURLUPART_PORT, port.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), CURLUPART_URL, &url, 0) != CURLUE_OK) {
    return nullptr;
  }
  return CurlText(url);
}

// The account is handed over from the caller's block, so there is no copy of ours to wipe.
void SetProxy(const ORB_HTTP_PROXY* proxy, CurlOptions* options) {
  options->Set(CURLOPT_NOPROXY, "");
  if (proxy == nullptr) {
    options->Set(CURLOPT_PROXY, "");
    return;
  }
  const bool isUsable = IsTerminated(proxy->address) && IsTerminated(proxy->user) &&
                        IsTerminated(proxy->password) && proxy->port >= 1 &&
                        proxy->port <= kMaxPort;
  const CurlText url = isUsable ? ProxyUrl(*proxy) : nullptr;
  if (url == nullptr) {
    options->Keep(CURLE_COULDNT_RESOLVE_PROXY);
    return;
  }
  options->Set(CURLOPT_PROXY, static_cast<const char*>(url.get()));
  if (*proxy->user == '\0') return;
  options->Set(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC | CURLAUTH_DIGEST |
                                                    CURLAUTH_NTLM | CURLAUTH_NEGOTIATE));
  options->Set(CURLOPT_PROXYUSERNAME, static_cast<const char*>(proxy->user));
  options->Set(CURLOPT_PROXYPASSWORD, static_cast<const char*>(proxy->password));
}

CURLcode Perform(CURL* handle) {
  const CURLcode code = curl_easy_perform(handle);
  return code == CURLE_ABORTED_BY_CALLBACK ? CURLE_OPERATION_TIMEDOUT : code;
}

void LogFailure(const std::string& what, CURLcode code) {
  LogStream::GetLogStream("native_sdk", LOGGER_LEVEL_WARNING, 0, "platform/http/HttpClient",
                          "LogFailure", __LINE__)
      << "http: " << what << " failed: " << curl_easy_strerror(code) << " (" << int{code} << ")";
}

// What libcurl hands out during one exchange. The callbacks are called from C and let nothing
// through: memory for all they keep is there before the first one.
class AnswerSink {
 public:
  explicit AnswerSink(HttpAnswer* answer) : m_answer(*answer) {
    m_answer.headers.reserve(kHttpKeptBytes);
    m_answer.body.reserve(kHttpKeptBytes);
  }

  void Attach(CurlOptions* options) {
    options->Set(CURLOPT_HEADERFUNCTION, &TakeHeader);
    options->Set(CURLOPT_HEADERDATA, this);
    options->Set(CURLOPT_WRITEFUNCTION, &TakeBody);
    options->Set(CURLOPT_WRITEDATA, this);
  }

  // The exchange was ended here because enough of the body had come.
  bool HasEnough() const { return m_hasEnough; }

 private:
  // Counts the headers of all responses, those of the proxy included, and keeps the last ones.
  static std::size_t TakeHeader(char* data, std::size_t size, std::size_t count, void* self) {
    AnswerSink& sink = *static_cast<AnswerSink*>(self);
    const std::size_t length = size * count;
    sink.m_headerBytes += length;
    if (sink.m_headerBytes + sink.m_answer.body.size() > kHttpKeptBytes) return 0;
    if (length >= 5 && ::memcmp(data, "HTTP/", 5) == 0) sink.m_answer.headers.clear();
    sink.m_answer.headers.append(data, length);
    return length;
  }

  static std::size_t TakeBody(char* data, std::size_t size, std::size_t count, void* self) {
    AnswerSink& sink = *static_cast<AnswerSink*>(self);
    std::string& body = sink.m_answer.body;
    const std::size_t room = kHttpKeptBytes - sink.m_answer.headers.size() - body.size();
    const std::size_t length = size * count;
    body.append(data, std::min(length, room));
    sink.m_hasEnough = length > room;
    return sink.m_hasEnough ? 0 : length;
  }

  HttpAnswer& m_answer;
  std::size_t m_headerBytes = 0;
  bool m_hasEnough = false;
};

// libcurl does not copy a body, and takes its parts along with the handle: both live as long.
class RequestBody {
 public:
  void Attach(const HttpCall& call, CURL* handle, CurlOptions* options) {
    for (const std::string& header : call.headers) Append(header.c_str(), options);
    if (call.method == HttpMethod::kPost) {
      Append("Expect:", options);  // a body of ours is not worth waiting for a leave to send it
      call.parts.empty() ? AttachText(call.body, options)
                         : AttachParts(call.parts, handle, options);
    }
    options->Set(CURLOPT_HTTPHEADER, m_headers.get());
  }

 private:
  void Append(const char* header, CurlOptions* options) {
    curl_slist* const longer = curl_slist_append(m_headers.get(), header);
    if (longer == nullptr) return options->Keep(CURLE_OUT_OF_MEMORY);
    (void)m_headers.release();  // the list's first element stays the same, or is the new one
    m_headers.reset(longer);
  }

  static void AttachText(const std::string& body, CurlOptions* options) {
    options->Set(CURLOPT_POST, 1L);
    options->Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    options->Set(CURLOPT_POSTFIELDS, body.data());
  }

  void AttachParts(const std::vector<HttpPart>& parts, CURL* handle, CurlOptions* options) {
    m_mime.reset(curl_mime_init(handle));
    for (const HttpPart& part : parts) options->Keep(AddPart(part));
    options->Set(CURLOPT_MIMEPOST, m_mime.get());
  }

  CURLcode AddPart(const HttpPart& part) {
    curl_mimepart* const added = m_mime == nullptr ? nullptr : curl_mime_addpart(m_mime.get());
    if (added == nullptr) return CURLE_OUT_OF_MEMORY;
    const CURLcode named = curl_mime_name(added, part.name.c_str());
    if (named != CURLE_OK) return named;
    if (part.filePath.empty()) return curl_mime_data(added, part.text.data(), part.text.size());
    struct stat status = {};  // a pipe would block the open without end
    if (::stat(part.filePath.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
      return CURLE_READ_ERROR;
    }
    const CURLcode opened = curl_mime_filedata(added, part.filePath.c_str());
    if (opened != CURLE_OK || part.fileName.empty()) return opened;
    return curl_mime_filename(added, part.fileName.c_str());
  }

  CurlList m_headers;
  CurlMime m_mime;
};

HttpAnswer Failed(const std::string& what, CURLcode code) {
  LogFailure(what, code);
  HttpAnswer answer;
  answer.curlCode = code;
  return answer;
}

void ReadOutcome(CURL* handle, HttpAnswer* answer) {
  long status = 0;
  curl_off_t seconds = 0;
  (void)curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);  // 0 when it cannot tell
  (void)curl_easy_getinfo(handle, CURLINFO_RETRY_AFTER, &seconds);
  answer->status = static_cast<std::uint32_t>(status);
  answer->retryAfterSeconds = std::max<std::int64_t>(seconds, 0);  // a date may lie in the past
}

std::string NameOf(const HttpCall& call) {
  return (call.method == HttpMethod::kPost ? "POST " : "GET ") + HttpMaskedUrl(call.url);
}

// "host:port" as a URL, null when the host is none.
CurlText TunnelUrl(const std::string& host, unsigned short port) {
  const CurlUrl parsed(curl_url());
  char* url = nullptr;
  if (port == 0 || curl_url_set(parsed.get(), CURLUPART_SCHEME, "http", 0) != CURLUE_OK ||
      curl_url_set(parsed.get(), CURLUPART_HOST, UrlHost(host).c_str(), 0) != CURLUE_OK ||
      curl_url_set(parsed.get(), CURLUPART_PORT, std::to_string(port).c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), CURLUPART_URL, &url, 0) != CURLUE_OK) {
    return nullptr;
  }
  return CurlText(url);
}

}  // namespace

HttpAnswer HttpSend(const HttpCall& call) {
  const WithoutSigpipe shield;
  RequestBody body;  // outlives the handle
  const CurlHandle handle = NewHandle();
  if (handle == nullptr) return Failed(NameOf(call), CURLE_FAILED_INIT);
  HttpAnswer answer;
  AnswerSink sink(&answer);
  CurlOptions options(handle.get());
  const Deadline deadline(&options);
  SetCommon(&options);
  SetProxy(call.proxy, &options);
  options.Set(CURLOPT_URL, call.url.c_str());
  body.Attach(call, handle.get(), &options);
  sink.Attach(&options);

  CURLcode code = options.Result();
  if (code == CURLE_OK) code = Perform(handle.get());
  if (code == CURLE_WRITE_ERROR && sink.HasEnough()) code = CURLE_OK;
  if (code != CURLE_OK) return Failed(NameOf(call), code);
  ReadOutcome(handle.get(), &answer);
  // Interim answers and then something else pass for an answer with libcurl.
  if (answer.status == 0) return Failed(NameOf(call), CURLE_WEIRD_SERVER_REPLY);
  return answer;
}

int HttpTunnel(const ORB_HTTP_PROXY& proxy, const std::string& host, unsigned short port) {
  const WithoutSigpipe shield;
  const CurlHandle handle = NewHandle();
  if (handle == nullptr) return CURLE_FAILED_INIT;
  const CurlText url = TunnelUrl(host, port);
  if (url == nullptr) return CURLE_URL_MALFORMAT;
  HttpAnswer ignored;
  AnswerSink sink(&ignored);
  CurlOptions options(handle.get());
  const Deadline deadline(&options);
  SetCommon(&options);
  SetProxy(&proxy, &options);
  options.Set(CURLOPT_URL, static_cast<const char*>(url.get()));
  options.Set(CURLOPT_HTTPPROXYTUNNEL, 1L);
  options.Set(CURLOPT_CONNECT_ONLY, 1L);
  sink.Attach(&options);
  CURLcode code = options.Result();
  if (code == CURLE_OK) code = Perform(handle.get());
  if (code != CURLE_OK) LogFailure("tunnel", code);
  return code;
}

std::string HttpMaskedUrl(const std::string& url) {
  const std::size_t colon = std::min(url.find(':'), url.size());
  const bool hasScheme = url.compare(colon, ::strlen(kSchemeEnd), kSchemeEnd) == 0;
  const std::size_t start = hasScheme ? colon + ::strlen(kSchemeEnd) : 0;
  const std::size_t at = url.rfind('@');
  std::string rest =
      at == std::string::npos || at < start ? url.substr(start) : "***" + url.substr(at);
  rest.resize(std::min(rest.size(), rest.find_first_of("?#")));
  return url.substr(0, start) + rest;
}
