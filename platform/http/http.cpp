#include "zel_platform/http.h"

#include <string.h>

#include <mutex>
#include <string>

#include "http/HttpClient.h"
#include "http/http_ref.h"
#include "zel_platform/crypto.h"
#include "zel_platform/prax.h"
#include "zel_platform/securec.h"

namespace {

// Beside these a failure is libcurl's code, which is never negative.
constexpr int kOk = 0;
constexpr int kRefused = -1;
constexpr int kNoMemory = -2;
constexpr std::uint8_t kGet = 0;
constexpr unsigned int kIdBytes = 16;

struct KeptProxy {
  std::mutex lock;
  ORB_HTTP_PROXY proxy{};
};

KeptProxy& TheProxy() {
  static KeptProxy* const instance = new KeptProxy;
  return *instance;
}

// Holds a password on the stack only as long as the block lives.
struct WipedProxy {
  ORB_HTTP_PROXY block{};
  ~WipedProxy() { (void)memset_s(&block, sizeof(block), 0, sizeof(block)); }
};

const char* TextOf(const char* text) { return text == nullptr ? "" : text; }

errno_t Fill(ORB_HTTP_PROXY& proxy, const char* domain, const char* user, const char* password,
             unsigned short port) {
  proxy.port = port;
  errno_t error = strcpy_s(proxy.address, sizeof(proxy.address), domain);
  if (error == 0) error = strcpy_s(proxy.user, sizeof(proxy.user), TextOf(user));
  if (error == 0) error = strcpy_s(proxy.password, sizeof(proxy.password), TextOf(password));
  return error;
}

bool FillRequestId(ORB_HTTP_REQUEST* request) {
  unsigned char bytes[kIdBytes];
  return ORB_CPYPT_RealRandom(bytes, kIdBytes) == 0 &&
         orb_cvt_hex(bytes, kIdBytes, request->requestId, sizeof(request->requestId)) == 0;
}

// The caller's NUL-terminated copy. Null with `*buffer` for an empty text; false: no memory.
bool Copy(const std::string& text, void** buffer) {
  if (text.empty()) return true;
  *buffer = PRAX_MemMallocS(text.size() + 1);
  if (*buffer != nullptr) (void)::memcpy(*buffer, text.data(), text.size());
  return *buffer != nullptr;
}

bool HandOver(const HttpAnswer& answer, ORB_HTTP_REQUEST* request) {
  if (!Copy(answer.body, &request->buffer1) || !Copy(answer.headers, &request->buffer2)) {
    PRAX_MemFreeSetNullD(&request->buffer1);
    return false;
  }
  request->status = answer.status;
  return true;
}

int Send(ORB_HTTP_REQUEST* request) {
  HttpCall call;
  call.url = request->url;
  call.proxy = request->proxy;
  const HttpAnswer answer = HttpSend(call);
  if (answer.curlCode != kOk) return answer.curlCode;
  return HandOver(answer, request) ? kOk : kNoMemory;
}

}  // namespace

int orb_http_syn_send_ex(ORB_HTTP_REQUEST* request, int /*flags*/) {
  if (request == nullptr) return kRefused;
  request->status = 0;
  request->buffer1 = nullptr;
  request->buffer2 = nullptr;
  const bool isTerminated = ::strnlen(request->url, sizeof(request->url)) < sizeof(request->url);
  if (!FillRequestId(request) || !isTerminated || request->method != kGet) return kRefused;
  try {
    return Send(request);
  } catch (...) {  // no memory
    return kNoMemory;
  }
}

// A text that does not fit leaves the earlier proxy in place.
int orb_http_set_proxy(const char* domain, const char* user, const char* password,
                       unsigned short port) {
  WipedProxy fresh;
  if (*TextOf(domain) != '\0') {
    const errno_t error = Fill(fresh.block, domain, user, password, port);
    if (error != 0) return error;
  }
  KeptProxy& kept = TheProxy();
  const std::lock_guard<std::mutex> hold(kept.lock);
  kept.proxy = fresh.block;  // every byte, so nothing stays of an earlier password
  return 0;
}

int orb_http_proxy_connect(unsigned int /*id*/, const char* host, unsigned short port) {
  const WipedProxy proxy{orb_http_ref_proxy()};
  if (*TextOf(host) == '\0' || *proxy.block.address == '\0') return kRefused;
  try {
    return HttpTunnel(proxy.block, host, port);
  } catch (...) {  // no memory
    return kNoMemory;
  }
}

ORB_HTTP_PROXY orb_http_ref_proxy() {
  KeptProxy& kept = TheProxy();
  const std::lock_guard<std::mutex> hold(kept.lock);
  return kept.proxy;
}
