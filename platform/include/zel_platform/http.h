// Synchronous HTTP exchanges and the process's HTTP proxy. Any thread; two exchanges at
// once are normal. Only http and https are spoken, redirects are not followed, TLS
// peers are verified, and the environment's proxy settings have no say.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zel_platform/platform_export.h"

// A proxy as one exchange uses it. Texts end with a NUL.
struct ORB_HTTP_PROXY {
  char address[2048];  // host, or http:// or https:// and host; empty: no proxy
  std::int32_t port;   // 1 to 65535
  char user[256];      // empty: without an account
  char password[256];  // in clear
};

// One exchange: what is asked above `requestId`, what came back below `proxy`. The caller owns the
// record and zeroes it before.
struct ORB_HTTP_REQUEST {
  char url[2048];               // http or https, NUL-terminated
  std::uint8_t method;          // 0: GET
  char reserved1[71];           // zero
  char requestId[64];           // filled here: 32 hex digits
  const ORB_HTTP_PROXY* proxy;  // null: direct
  char reserved2[16];           // zero
  void* buffer1;         // the body, capped, or null; freed by the caller: PRAX_MemFreeSetNullD
  std::uint32_t status;  // of the final response; 0 when there was none
  char reserved3[4];     // zero
  void* buffer2;         // the headers, capped, or null; freed the same way
  char reserved4[4488];  // zero
};

static_assert(sizeof(ORB_HTTP_PROXY) == 2564 && offsetof(ORB_HTTP_PROXY, port) == 2048 &&
                  offsetof(ORB_HTTP_PROXY, user) == 2052 &&
                  offsetof(ORB_HTTP_PROXY, password) == 2308,
              "layout is part of the contract");
static_assert(sizeof(ORB_HTTP_REQUEST) == 6720 && offsetof(ORB_HTTP_REQUEST, method) == 2048 &&
                  offsetof(ORB_HTTP_REQUEST, requestId) == 2120 &&
                  offsetof(ORB_HTTP_REQUEST, proxy) == 2184 &&
                  offsetof(ORB_HTTP_REQUEST, buffer1) == 2208 &&
                  offsetof(ORB_HTTP_REQUEST, status) == 2216 &&
                  offsetof(ORB_HTTP_REQUEST, buffer2) == 2224,
              "layout is part of the contract");

extern "C" {
// 0 when an exchange completed, whatever its status; else non-zero. `flags` is 0.
ZEL_PLATFORM_API int orb_http_syn_send_ex(ORB_HTTP_REQUEST* request, int flags);
// The process's proxy; an empty domain clears it. Not used by orb_http_syn_send_ex.
ZEL_PLATFORM_API int orb_http_set_proxy(const char* domain, const char* user, const char* password,
                                        unsigned short port);
// Opens a tunnel to host:port through the process's proxy and closes it; 0 when the proxy
// agreed. `id` is opaque.
ZEL_PLATFORM_API int orb_http_proxy_connect(unsigned int id, const char* host, unsigned short port);
}
