// The way of STUN messages to one server and back. One thread. Nothing blocks past a deadline.
#pragma once

#include <cstddef>
#include <memory>

#include "nettools/DetectServer.h"
#include "nettools/StunMessage.h"

class StunChannel {
 public:
  // Of UDP over Ethernet; longer messages are none of ours.
  static constexpr std::size_t kMessageBytes = 1500;

  virtual ~StunChannel() = default;
  // False when the channel is of no use any more.
  virtual bool Send(const StunRequest& request) = 0;
  // The size of the next message, 0 when the time is over first, negative when the channel is of no
  // use any more.
  virtual int Receive(DetectClock::time_point until, unsigned char (&message)[kMessageBytes]) = 0;
};

// Each returns null with `*code` set when the server cannot be reached before the deadline. Over
// TLS the server's certificate must be valid for `host`.
std::unique_ptr<StunChannel> OpenUdpChannel(const DetectAddress& address,
                                            const DetectOptions& options, int* code);
std::unique_ptr<StunChannel> OpenTlsChannel(const DetectAddress& address, const std::string& host,
                                            const DetectOptions& options,
                                            DetectClock::time_point deadline, int* code);
