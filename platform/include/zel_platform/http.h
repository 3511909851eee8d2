// Synchronous HTTP exchanges and the process's HTTP proxy. Any thread; two exchanges at
// once are normal. Only http and https are spoken, redirects are not followed, TLS
// peers are verified, and the environment's proxy settings have no say.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zel_platform/platform_export.h"

struct ORB_HTTP_PROXY {
  char address[2048];
  std::int32_t port;
  char user[256];
  char password[256];
};

struct ORB_HTTP_REQUEST {
  char url[2048];
  std::uint8_t method;  // 0: GET
  char reserved1[71];
  char requestId[64];           // filled here: 32 hex digits
  const ORB_HTTP_PROXY* proxy;  // null: direct
  char reserved2[16];
  void* buffer1;  // the body, capped, or null; freed by the caller: PRAX_MemFreeSetNullD
  std::uint32_t status;
  char reserved3[4];
  void* buffer2;  // the headers, capped, or null; freed the same way
  char reserved4[4488];
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
