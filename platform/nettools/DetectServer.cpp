#include "nettools/DetectServer.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include <openssl/rand.h>

#include "crypto/openssl_handle.h"
#include "nettools/StunChannel.h"
#include "nettools/StunMessage.h"

namespace {

using std::chrono::milliseconds;
using Delay = DetectClock::duration;

// The requests of one measurement. An answer counts once, and only for a request that was sent.
class Exchange {
 public:
  Exchange(StunChannel& channel, const DetectOptions& options, DetectClock::time_point deadline)
      : m_channel(channel), m_options(options), m_deadline(deadline) {}

  void Run() {
    DetectClock::time_point next = DetectClock::now();
    for (int i = 0; i < m_options.requests && next < m_deadline && SendOne(); ++i) {
      next += m_options.pacing;
      if (i + 1 < m_options.requests && !CollectUntil(std::min(next, m_deadline), false)) return;
    }
    (void)CollectUntil(std::min(DetectClock::now() + m_options.timeout, m_deadline), true);
  }

  DetectMeasurement Result() const {
    DetectMeasurement measured;
    if (m_delays.empty()) {
      measured.result = kDetectNoAnswer;
      return measured;
    }
    const Delay sum = std::accumulate(m_delays.begin(), m_delays.end(), Delay::zero());
    measured.average = InMs(sum / static_cast<long>(m_delays.size()));
    measured.maximum = InMs(*std::max_element(m_delays.begin(), m_delays.end()));
    measured.minimum = InMs(*std::min_element(m_delays.begin(), m_delays.end()));
    const std::size_t lost = m_sent.size() - m_delays.size();
    measured.discard = static_cast<std::int32_t>((lost * 100 + m_sent.size() / 2) / m_sent.size());
    return measured;
  }

 private:
  struct Sent {
    StunTransactionId id;
    DetectClock::time_point at;
    bool isAnswered;
  };

  static std::int32_t InMs(Delay delay) {
    return static_cast<std::int32_t>(std::chrono::round<milliseconds>(delay).count());
  }

  bool SendOne() {
    StunTransactionId id;
    const OpenSslScope scope;
    if (::RAND_bytes(id.data(), static_cast<int>(id.size())) != 1) return false;
    m_sent.push_back({id, DetectClock::now(), false});
    return m_channel.Send(BuildStunRequest(id));
  }

  // Takes answers until the time, also from a peer that never stops sending, or until none is
  // missing when `untilAll`. False when the channel is of no use any more.
  bool CollectUntil(DetectClock::time_point until, bool untilAll) {
    unsigned char message[StunChannel::kMessageBytes];
    while (!untilAll || m_delays.size() < m_sent.size()) {
      const int size = m_channel.Receive(until, message);
      if (size <= 0) return size == 0;
      StunTransactionId id;
      if (ParseStunAnswer(message, static_cast<std::size_t>(size), &id)) Note(id);
      if (DetectClock::now() >= until) break;
    }
    return true;
  }

  void Note(const StunTransactionId& id) {
    const auto sent = std::find_if(m_sent.begin(), m_sent.end(), [&id](const Sent& request) {
      return request.id == id && !request.isAnswered;
    });
    if (sent == m_sent.end()) return;
    sent->isAnswered = true;
    m_delays.push_back(DetectClock::now() - sent->at);
  }

  StunChannel& m_channel;
  const DetectOptions& m_options;
  const DetectClock::time_point m_deadline;
  std::vector<Sent> m_sent;
  std::vector<Delay> m_delays;
};

DetectMeasurement Failed(int code) {
  DetectMeasurement measured;
  measured.result = code;
  return measured;
}

}  // namespace

DetectMeasurement MeasureDetectServer(const std::string& entry, const DetectOptions& options,
                                      DetectClock::time_point deadline) {
  DetectEntry server;
  if (!ParseDetectEntry(entry, &server)) return Failed(kDetectBadEntry);
  DetectAddress address;
  int code = ResolveDetectEntry(server, options.defaultPort, deadline, &address);
  if (code != 0) return Failed(code);
  const std::unique_ptr<StunChannel> channel =
      options.overTls ? OpenTlsChannel(address, server.host, options, deadline, &code)
                      : OpenUdpChannel(address, options, &code);
  if (channel == nullptr) return Failed(code);
  Exchange exchange(*channel, options, deadline);
  exchange.Run();
  return exchange.Result();
}
