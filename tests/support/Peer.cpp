#include "support/Peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <regex>
#include <stdexcept>
#include <system_error>

#include "LoopbackServer.h"

namespace support {

namespace {

constexpr uid_t kNobody = 65534;
constexpr auto kStartDeadline = std::chrono::seconds(60);
constexpr int kRetryMs = 10;
constexpr char kOutputFile[] = "output.txt";

[[noreturn]] void Throw(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

bool Accepts(std::uint16_t port) {
  const int connection = zelctl::ConnectLoopback(port);
  if (connection >= 0) ::close(connection);
  return connection >= 0;
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

// The system gives no port away while a socket is bound to it, but lets servers that ask for the
// reuse of addresses listen there as long as that socket does not.
LoopbackPort::LoopbackPort() : m_claim(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const int on = 1;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (m_claim < 0 || ::setsockopt(m_claim, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      ::bind(m_claim, generic, size) != 0 || ::getsockname(m_claim, generic, &size) != 0) {
    Throw("no free port");
  }
  m_number = ::ntohs(address.sin_port);
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
  WaitUntilItAccepts();
}

Peer::~Peer() {
  (void)::kill(m_pid, SIGKILL);
  while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::string Peer::Filled(const std::string& text) const {
  const std::string there = std::regex_replace(text, std::regex("\\{dir\\}"), m_dir.Path());
  const std::string port = std::to_string(Port()), tlsPort = std::to_string(TlsPort());
  return std::regex_replace(std::regex_replace(there, std::regex("\\{port\\}"), port),
                            std::regex("\\{tlsPort\\}"), tlsPort);
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

Certificate MakeCertificate() {
  const TempDir dir;
  const std::string command =
      "cd '" + dir.Path() +
      "' && openssl req -x509 -newkey ec -nodes -days 2 -subj /CN=peer "
      "-pkeyopt ec_paramgen_curve:prime256v1 -addext subjectAltName=IP:127.0.0.1 "
      "-keyout key.pem -out certificate.pem 2>errors.txt";
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error("openssl: " + ReadWholeFile(dir.File("errors.txt")));
  }
  return {ReadWholeFile(dir.File("certificate.pem")), ReadWholeFile(dir.File("key.pem"))};
}

}  // namespace support
