// Real servers of other projects, run on loopback for one test.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace support {

// A port of 127.0.0.1 that nobody else is given as long as this object lives.
class LoopbackPort {
 public:
  LoopbackPort();
  ~LoopbackPort();
  LoopbackPort(const LoopbackPort&) = delete;
  LoopbackPort& operator=(const LoopbackPort&) = delete;

  std::uint16_t Number() const { return m_number; }

 private:
  std::uint16_t m_number = 0;
  const int m_claim;  // a socket that is bound to it
};

// One server process. It runs as an ordinary user, also where the test is root, and is killed
// when this object or the test process ends.
class Peer {
 public:
  // Writes the files into a directory of its own, starts the command in it (an absolute path
  // first) and returns when the server accepts connections on Port(). In the command and the
  // files "{dir}", "{port}" and "{tlsPort}" are replaced. Throws when the server does not start,
  // with what it has printed.
  Peer(const std::vector<std::string>& command, const std::map<std::string, std::string>& files);
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  std::uint16_t Port() const { return m_port.Number(); }
  std::uint16_t TlsPort() const { return m_tlsPort.Number(); }
  std::string File(const std::string& name) const { return m_dir.File(name); }

 private:
  std::string Filled(const std::string& text) const;
  void Start(const std::vector<std::string>& command);
  void WaitUntilItAccepts();

  const TempDir m_dir;
  const LoopbackPort m_port;
  const LoopbackPort m_tlsPort;
  pid_t m_pid = -1;
};

// A key and a self-signed certificate for 127.0.0.1, as PEM texts.
struct Certificate {
  std::string certificate;
  std::string key;
};
Certificate MakeCertificate();

}  // namespace support
