#include "support/Peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <system_error>

#include "LoopbackServer.h"

namespace support {

namespace {

// Below the ports that the kernel gives to outgoing connections.
constexpr int kFirstPort = 20000;
constexpr int kLastPort = 32000;
constexpr uid_t kNobody = 65534;
constexpr auto kStartDeadline = std::chrono::seconds(60);
constexpr int kRetryMs = 10;
constexpr char kOutputFile[] = "output.txt";

[[noreturn]] void Throw(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = ::htons(port);
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  return address;
}

template <class Address>
const sockaddr* Generic(const Address& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// A socket bound to a name that exists once in the system and goes with it; -1 when it is taken.
int Claim(std::uint16_t port) {
  const std::string name = "zel-test-port-" + std::to_string(port);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());  // a first NUL: no file
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const int claim = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (claim < 0) Throw("socket");
  if (::bind(claim, Generic(address), length) == 0) return claim;
  ::close(claim);
  return -1;
}

bool IsFree(std::uint16_t port, int type) {
  const sockaddr_in address = Loopback(port);
  const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
  const bool isFree = fd >= 0 && ::bind(fd, Generic(address), sizeof(address)) == 0;
  if (fd >= 0) ::close(fd);
  return isFree;
}

bool Accepts(std::uint16_t port) {
  const int connection = zelctl::ConnectLoopback(port);
  if (connection >= 0) ::close(connection);
  return connection >= 0;
}

void Replace(std::string* text, const std::string& name, const std::string& value) {
  for (std::size_t at = text->find(name); at != std::string::npos; at = text->find(name, at)) {
    text->replace(at, name.size(), value);
    at += value.size();
  }
}

void GiveToNobody(const std::string& path) {
  if (::geteuid() == 0 && ::chown(path.c_str(), kNobody, kNobody) != 0) Throw("chown " + path);
}

// In the new process: only calls that are safe between fork and exec. The user is changed first,
// because that takes the death signal back.
[[noreturn]] void Become(char* const* command, const char* directory, int output, pid_t parent) {
  char* const environment[] = {nullptr};
  const bool isReady =
      (::geteuid() != 0 ||
       (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0)) &&
      ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::getppid() == parent && ::chdir(directory) == 0 &&
      ::dup2(output, STDOUT_FILENO) >= 0 && ::dup2(output, STDERR_FILENO) >= 0;
  if (isReady) ::execve(command[0], command, environment);
  ::_exit(127);
}

}  // namespace

LoopbackPort::LoopbackPort() {
  std::random_device random;
  std::uniform_int_distribution<int> ports(kFirstPort, kLastPort);
  for (int attempt = 0; attempt < 1000; ++attempt) {
    m_number = static_cast<std::uint16_t>(ports(random));
    m_claim = Claim(m_number);
    if (m_claim < 0) continue;
    if (IsFree(m_number, SOCK_STREAM) && IsFree(m_number, SOCK_DGRAM)) return;
    ::close(m_claim);
  }
  throw std::runtime_error("no free port");
}

LoopbackPort::~LoopbackPort() { ::close(m_claim); }

Peer::Peer(const std::vector<std::string>& command,
           const std::map<std::string, std::string>& files) {
  GiveToNobody(m_dir.Path());
  for (const auto& [name, content] : files) {
    WriteWholeFile(m_dir.File(name), Filled(content));
    GiveToNobody(m_dir.File(name));
  }
  Start(command);
  try {
    WaitUntilItAccepts();
  } catch (...) {
    Kill();
    throw;
  }
}

Peer::~Peer() { Kill(); }

std::string Peer::Filled(std::string text) const {
  Replace(&text, "{dir}", m_dir.Path());
  Replace(&text, "{port}", std::to_string(Port()));
  Replace(&text, "{tlsPort}", std::to_string(TlsPort()));
  return text;
}

void Peer::Start(const std::vector<std::string>& command) {
  std::vector<std::string> words;
  for (const std::string& word : command) words.push_back(Filled(word));
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);

  const std::string path = m_dir.File(kOutputFile);
  const int output = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (output < 0) Throw("open " + path);
  const pid_t parent = ::getpid();
  m_pid = ::fork();
  if (m_pid == 0) Become(pointers.data(), m_dir.Path().c_str(), output, parent);
  ::close(output);
  if (m_pid < 0) Throw("fork");
}

void Peer::WaitUntilItAccepts() {
  const auto deadline = std::chrono::steady_clock::now() + kStartDeadline;
  while (!Accepts(Port())) {
    siginfo_t ended = {};
    const bool isOver =
        ::waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        ended.si_pid == m_pid;
    if (isOver || std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("server did not start: " + ReadWholeFile(File(kOutputFile)));
    }
    (void)::poll(nullptr, 0, kRetryMs);
  }
}

void Peer::Kill() {
  (void)::kill(m_pid, SIGKILL);
  while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

Certificate MakeCertificate() {
  const TempDir dir;
  const std::string key = dir.File("key.pem");
  const std::string certificate = dir.File("certificate.pem");
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
      "-subj /CN=peer -addext subjectAltName=IP:127.0.0.1 -keyout '" +
      key + "' -out '" + certificate + "' 2>'" + dir.File("errors.txt") + "'";
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error("openssl: " + ReadWholeFile(dir.File("errors.txt")));
  }
  return {ReadWholeFile(certificate), ReadWholeFile(key)};
}

}  // namespace support
