// One server of a network detection: what its entry says, where it is, and how well it answers.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

using DetectClock = std::chrono::steady_clock;

// Beside 0, the results of a measurement.
enum DetectCode : std::int32_t {
  kDetectBadEntry = 1,     // no host, or no port from 1 to 65535
  kDetectNotResolved = 2,  // the name is unknown, or its look-up takes too long
  kDetectNoAnswer = 3,     // nothing listens, or no answer came in time
  kDetectTlsFailed = 4     // no TLS, or a certificate that is not trusted
};

struct DetectOptions {
  int requests = 10;
  std::chrono::milliseconds pacing{20};     // from one request to the next
  std::chrono::milliseconds timeout{1000};  // for an answer, after the last request
  bool overTls = false;
  std::uint16_t defaultPort = 3478;
  std::string caFile;                     // PEM; empty: the system's store
  std::vector<std::string> localAddress;  // numeric; the first that fits the server is used
};

struct DetectMeasurement {
  std::int32_t result = 0;
  std::int32_t average = 0, maximum = 0, minimum = 0;  // milliseconds
  std::int32_t discard = 100;                          // percent of the requests sent
};

struct DetectEntry {
  std::string host;
  std::uint16_t port = 0;  // 0: the default
};

struct DetectAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;
};

// "host", "host:port", "[IPv6]", "[IPv6]:port" or a bare IPv6 address. False when it is none.
bool ParseDetectEntry(const std::string& text, DetectEntry* entry);

// Asks the resolver, on a thread of its own because nothing else ends a look-up in time. 0 or
// kDetectNotResolved.
int ResolveDetectEntry(const DetectEntry& entry, std::uint16_t defaultPort,
                       DetectClock::time_point deadline, DetectAddress* address);

// Sends binding requests at the pacing and waits for their answers, all before the deadline.
// Blocks. The calling thread has SIGPIPE blocked.
DetectMeasurement MeasureDetectServer(const std::string& entry, const DetectOptions& options,
                                      DetectClock::time_point deadline);
