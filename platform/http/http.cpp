// Exchanges and proxy tunnels are not available in this build of the reference platform:
// they answer non-zero and touch no network. The process's proxy is only kept.
#include "zel_platform/http.h"

#include <mutex>

#include "http/http_ref.h"
#include "zel_platform/securec.h"

namespace {

constexpr int kNotAvailable = 1;

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

}  // namespace

int orb_http_syn_send_ex(ORB_HTTP_REQUEST* request, int /*flags*/) {
  if (request == nullptr) return kNotAvailable;
  request->status = 0;
  request->buffer1 = nullptr;
  request->buffer2 = nullptr;
  return kNotAvailable;
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

int orb_http_proxy_connect(unsigned int /*id*/, const char* /*host*/, unsigned short /*port*/) {
  return kNotAvailable;
}

ORB_HTTP_PROXY orb_http_ref_proxy() {
  KeptProxy& kept = TheProxy();
  const std::lock_guard<std::mutex> hold(kept.lock);
  return kept.proxy;
}
