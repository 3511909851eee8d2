// Sends events to an OpenTelemetry collector as log records: OTLP/HTTP with JSON, gzip.
#pragma once

#include "track/TrackTransport.h"

class OtlpTransport : public TrackTransport {
 public:
  // `endpoint` is the collector's address; "/v1/logs" is put behind it.
  explicit OtlpTransport(const std::string& endpoint);

  // Whether there is anything to send to: an http or https address.
  static bool Takes(const std::string& endpoint);

  std::string Encode(const TrackEvent& event) const override;
  TrackAnswer Send(const std::vector<std::string>& batch) override;

 private:
  const std::string m_url;
};
