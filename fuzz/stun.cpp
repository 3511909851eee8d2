// Answers of STUN servers, and the entries that name these.
#include <algorithm>
#include <memory>

#include "FuzzInput.h"
#include "nettools/DetectServer.h"
#include "nettools/StunMessage.h"

namespace {

void ReadAnswer(const std::uint8_t* data, std::size_t size) {
  // Of its exact size on the heap: a byte beyond it is noticed.
  const std::unique_ptr<unsigned char[]> copy(new unsigned char[size]);
  std::copy_n(data, size, copy.get());
  if (size >= kStunHeaderBytes) {
    const std::size_t whole = StunMessageSize(copy.get());
    Require(whole == 0 || (whole >= kStunHeaderBytes && whole <= 65555 && whole % 4 == 0),
            "a message has one of the sizes that there are");
  }
  StunTransactionId id{};
  if (!ParseStunAnswer(copy.get(), size, &id)) return;
  Require(StunMessageSize(copy.get()) == size, "an answer is one whole message");
  Require(std::equal(id.begin(), id.end(), data + 8), "the id is the answer's");
  const StunRequest request = BuildStunRequest(id);
  Require(!ParseStunAnswer(request.data(), request.size(), &id), "a request is no answer");
}

void ReadEntry(const std::string& text) {
  DetectEntry entry;
  if (!ParseDetectEntry(text, &entry)) return;
  Require(!entry.host.empty(), "an entry has a host");
  if (entry.host.find_first_of("[]") != std::string::npos) return;  // the resolver knows no such
  const bool isIpv6 = entry.host.find(':') != std::string::npos;
  const std::string host = isIpv6 ? "[" + entry.host + "]" : entry.host;
  const std::string port = entry.port == 0 ? "" : ":" + std::to_string(entry.port);
  DetectEntry again;
  Require(
      ParseDetectEntry(host + port, &again) && again.host == entry.host && again.port == entry.port,
      "an entry written in full means the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ReadAnswer(data, size);
  ReadEntry(FuzzInput(data, size).Rest());
  return 0;
}
