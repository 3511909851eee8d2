#include "cutoff.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <sstream>

#include "support/TempDir.h"

namespace campaign {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kHung{40};
constexpr int kMoreStarts = 3;
constexpr char kMemoryDirectory[] = "/dev/shm";
constexpr char kEventMark[] = "cutoff";

// What may stay in a data directory after an orderly end.
const std::regex& Expected() {
  static const std::regex& expected = *new std::regex(
      "sdkcache\\.db(-wal|-shm)?|sdkcache_config\\.db|zorm|zorm/zormStore(_bak)?\\.dat|"
      "zorm/zormStore\\.dat\\.lock|track|track/"
      "(key|position|lock|[0-9a-f]{16}-[0-9A-F]{32}\\.spool)|"
      "log|log/(native_sdk|rotated)(\\.[0-9]+)?\\.txt|log/ut_events(\\.[0-9]+)?\\.jsonl|clean(/"
      ".*)?");
  return expected;
}

pid_t Spawn(const std::string& directory, const HostRun& run, int output) {
  std::vector<std::string> texts = {ZEL_CUTOFF_HOST, run.check ? "check" : "work", directory,
                                    std::to_string(run.seed), std::to_string(run.rounds)};
  std::vector<char*> arguments;
  for (std::string& text : texts) arguments.push_back(text.data());
  arguments.push_back(nullptr);
  std::string preload = std::string("LD_PRELOAD=") + ZEL_FAULTS_PRELOAD;
  std::string faults = "ZEL_FAULTS=" + run.faults;
  std::vector<char*> environment;
  if (!run.faults.empty()) environment = {preload.data(), faults.data()};
  environment.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (directory + ".stderr").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t child = -1;
  const int error =
      posix_spawn(&child, ZEL_CUTOFF_HOST, &actions, nullptr, arguments.data(), environment.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    std::fprintf(stderr, "%s: %s\n", ZEL_CUTOFF_HOST, std::strerror(error));
    std::exit(2);
  }
  return child;
}

int MsUntil(Clock::time_point time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Reads until the host has closed its end, or until `deadline`: false.
bool ReadUntil(int descriptor, Clock::time_point deadline, std::string* text) {
  char buffer[4096];
  for (;;) {
    pollfd ready = {descriptor, POLLIN, 0};
    if (poll(&ready, 1, MsUntil(deadline)) == 0) return false;
    const ssize_t length = read(descriptor, buffer, sizeof(buffer));
    if (length <= 0) return true;
    text->append(buffer, static_cast<std::size_t>(length));
  }
}

std::vector<std::string> WholeLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines.push_back(text.substr(begin, end - begin));
  }
  return lines;
}

std::string ReadIfThere(const std::string& path) {
  return fs::exists(path) ? support::ReadWholeFile(path) : std::string();
}

}  // namespace

Options ReadOptions(int argc, char** argv) {
  // The end of a process does not depend on the disk, and memory is quicker.
  if (access(kMemoryDirectory, W_OK) == 0) (void)setenv("TMPDIR", kMemoryDirectory, 0);
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--seconds") options.seconds = std::atoi(argv[i + 1]);
    if (name == "--seed") options.seed = static_cast<unsigned int>(std::atoi(argv[i + 1]));
    if (name == "--json") options.json = argv[i + 1];
    if (name == "--only") options.only = argv[i + 1];
  }
  if (argc % 2 == 1 && options.seconds > 0) return options;
  std::fprintf(stderr, "usage: %s [--seconds N] [--seed N] [--json FILE] [--only CASE]\n", argv[0]);
  std::exit(2);
}

HostEnd RunHost(const std::string& directory, const HostRun& run) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
  const pid_t child = Spawn(directory, run, ends[1]);
  close(ends[1]);
  HostEnd end;
  std::string text;
  const auto limit = run.killAfterUs > 0
                         ? Clock::duration(std::chrono::microseconds(run.killAfterUs))
                         : Clock::duration(kHung);
  if (!ReadUntil(ends[0], Clock::now() + limit, &text)) {
    end.hung = run.killAfterUs == 0;
    (void)kill(child, SIGKILL);
    (void)ReadUntil(ends[0], Clock::now() + kHung, &text);
  }
  close(ends[0]);
  (void)waitpid(child, &end.status, 0);
  end.lines = WholeLines(text);
  return end;
}

std::string Model::Learn(const HostEnd& end) {
  std::string wrong;
  for (const std::string& line : end.lines) {
    std::istringstream words(line.substr(1));
    long key = 0;
    long value = 0;
    words >> key >> value;
    std::set<long>& allowed = m_allowed[static_cast<unsigned int>(key)];
    switch (line[0]) {
      case 'I':
        m_started = m_started || key == 0;
        break;
      case 'M':
        if (allowed.empty()) allowed.insert(-1);
        allowed.insert(value);
        break;
      case 'A':
        allowed = {value};
        break;
      case 'E':
        m_events.insert(key);
        break;
      case 'R':
        if (value == -3 || allowed.count(value) != 0 || (allowed.empty() && value == -1)) break;
        wrong += " key " + std::to_string(key) + " has " + std::to_string(value) + " for " +
                 (allowed.empty() ? "none" : std::to_string(*allowed.rbegin())) + ";";
        break;
      default:
        break;
    }
  }
  return wrong;
}

std::string Model::Check(bool events) {
  std::string wrong = CheckStart() + CheckStart();
  // A process may end while the library writes, and leave a journal to the next.
  for (int i = 0; i < kMoreStarts && !CheckFiles().empty(); ++i) wrong += CheckStart();
  if (events) wrong += CheckEvents();
  return wrong + CheckFiles();
}

std::string Model::CheckStart() {
  HostRun run;
  run.check = true;
  const HostEnd end = RunHost(m_directory, run);
  if (end.hung) return " the next start hangs;";
  if (end.status != 0) return " the next start ends with " + std::to_string(end.status) + ";";
  std::string wrong = Learn(end);
  for (const std::string& line : end.lines) {
    if ((line[0] == 'I' || line[0] == 'X') && line.substr(1) != " 0") {
      wrong += " the next start says " + line + ";";
    }
    if (line[0] == 'R' && line.find(" -3") != std::string::npos) wrong += " no answer: " + line;
  }
  const std::string secret = ReadIfThere(m_directory + "/sdkcache_config.db");
  if (!m_secret.empty() && secret != m_secret) wrong += " the secret is another;";
  m_secret = secret;
  return wrong;
}

std::string Model::CheckEvents() {
  std::set<long> found;
  for (const auto& entry : fs::directory_iterator(m_directory + "/log")) {
    if (entry.path().filename().string().rfind("ut_events", 0) != 0) continue;
    const std::string text = support::ReadWholeFile(entry.path().string());
    for (std::size_t at = 0; (at = text.find(kEventMark, at)) != std::string::npos; ++at) {
      found.insert(std::atol(text.c_str() + at + sizeof(kEventMark) - 1));
    }
  }
  std::string wrong;
  for (const long event : m_events) {
    if (found.count(event) == 0) wrong += " event " + std::to_string(event) + " is lost;";
  }
  return wrong;
}

std::string Model::CheckFiles() const {
  std::string wrong;
  if (ReadIfThere(m_directory + "/sdkcache.db").rfind("SQLite format 3", 0) == 0) {
    wrong += " the database is not encrypted;";
  }
  for (const auto& entry : fs::recursive_directory_iterator(m_directory)) {
    const std::string name = fs::relative(entry.path(), m_directory).string();
    if (!std::regex_match(name, Expected())) wrong += " " + name + " is left behind;";
  }
  return wrong;
}

void WriteJson(const Options& options, const Json::Value& result) {
  if (!options.json.empty()) support::WriteWholeFile(options.json, result.toStyledString());
}

}  // namespace campaign
