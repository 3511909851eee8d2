#include <arpa/inet.h>
#include <limits.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "prax/prax_internal.h"

void* PRAX_MemMallocS(size_t size) {
  if (size == 0) return nullptr;
  const int fault = prax::Fault(PRAX_REF_MALLOC);
  void* const memory = fault == 0 ? ::calloc(1, size) : nullptr;
  if (memory == nullptr) (void)prax::Fail(fault == 0 ? ENOMEM : fault);
  return memory;
}

void PRAX_MemFreeD(void* memory) { ::free(memory); }

void PRAX_MemFreeSetNullD(void** memory) {
  if (memory == nullptr) return;
  ::free(*memory);
  *memory = nullptr;
}

unsigned int PRAX_StrLen(const char* text) {
  const std::size_t length = ::strlen(prax::TextOf(text));
  return static_cast<unsigned int>(std::min<std::size_t>(length, UINT_MAX));
}

unsigned int PRAX_InetAddr(const char* dotted) {
  in_addr address{};
  if (::inet_pton(AF_INET, prax::TextOf(dotted), &address) != 1) return INADDR_NONE;
  return address.s_addr;
}
