// Fails each call of the system in turn - the first, the second, and so on until the host's run
// no longer comes to it - once and from there on, in a first and in a later start.
#include <errno.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cutoff.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using campaign::HostEnd;
using campaign::HostRun;
using Clock = std::chrono::steady_clock;

constexpr int kRunsAtOnce = 6;  // most of a run with a fault is waiting
constexpr unsigned int kFirstSeed = 1;
constexpr unsigned int kSecondSeed = 2;
constexpr unsigned long kLastTurn = 1000000;
constexpr unsigned long kAllocationShare = 6;  // so many times more of them than of all others
constexpr std::size_t kCallersTold = 5;
constexpr int kMoreCalls = 10;  // a run with a fault may make some more than one without

struct Kind {
  const char* name;
  int error;
};

constexpr Kind kKinds[] = {{"write", ENOSPC}, {"sync", EIO},      {"rename", EIO},
                           {"open", EMFILE},  {"remove", EACCES}, {"mkdir", ENOSPC},
                           {"truncate", EIO}, {"thread", EAGAIN}, {"alloc", ENOMEM}};

constexpr const Kind* kAllocations = std::end(kKinds) - 1;

struct Case {
  const Kind* kind;
  std::string mode;
  bool later;  // a start on what an earlier one has made
  long number;
  unsigned long turn = 0;

  std::string Faults() const {
    return std::string(kind->name) + " " + mode + " " + std::to_string(number) + " " +
           std::to_string(kind->error);
  }
  std::string Name() const {
    return std::string(later ? "later" : "first") + "," + kind->name + "," + mode + "," +
           std::to_string(number);
  }
};

HostRun Work(unsigned int seed, const std::string& faults) {
  HostRun run;
  run.seed = seed;
  run.faults = faults;
  return run;
}

// The name of the function at `offset` of a library.
std::string FunctionAt(const std::string& library, const std::string& offset) {
  const std::string command = "addr2line -Cfse " + library + " " + offset + " 2>/dev/null";
  FILE* const output = popen(command.c_str(), "r");
  char name[256] = "";
  if (output == nullptr || std::fgets(name, sizeof(name), output) == nullptr) return offset;
  (void)pclose(output);
  return std::string(name, std::strcspn(name, "(\n"));
}

// The innermost functions of libraries that are not the compiler's or libc's.
std::vector<std::string> Callers(const std::string& said) {
  static const std::regex& frame = *new std::regex(
      "(\\S*/lib(zel|crypto|ssl|json|curl)[^(\\s]*)\\(([^+)]*)(\\+0x[0-9a-f]+)?\\)\\[0x");
  std::vector<std::string> callers;
  for (std::sregex_iterator at(said.begin(), said.end(), frame), none;
       at != none && callers.size() < kCallersTold; ++at) {
    const std::smatch& found = *at;
    if (found[2] != "zel") {
      callers.push_back("lib" + found[2].str());
    } else {
      callers.push_back(
          FunctionAt(found[1], found[3].length() > 0 ? found[3].str() : found[4].str().substr(1)));
    }
  }
  return callers;
}

// What the run itself did wrong; losses show after it. `*isForeign`: OpenSSL and the encryption of
// SQLite follow null pointers when they find no memory as they start, and libc gives up where it
// cannot note what a thread is to release; that is not ours to mend, and "" is returned.
std::string WrongIn(const HostEnd& end, const std::string& data, bool* isForeign) {
  if (end.hung) return " hangs;";
  if (end.status == 0) return {};
  const std::string said = support::ReadWholeFile(data + ".stderr");
  std::string wrong = " ends with " + std::to_string(end.status) + " in";
  for (const std::string& caller : Callers(said)) wrong += " " + caller;
  *isForeign = wrong.find(" in libcrypto") != std::string::npos ||
               wrong.find(" in sqlite3mc") != std::string::npos ||
               said.find("Fatal glibc error") != std::string::npos;
  return *isForeign ? "" : wrong + ";";
}

class Campaign {
 public:
  explicit Campaign(const campaign::Options& options)
      : m_options(options), m_ends(Clock::now() + std::chrono::seconds(options.seconds)) {}

  int Run() {
    MakeTemplate();
    if (m_options.only.empty()) {
      PlanAll();
    } else {
      PlanOne();
    }
    std::vector<std::thread> threads;
    for (int i = 0; i < kRunsAtOnce; ++i) threads.emplace_back([this] { TakeCases(); });
    for (std::thread& thread : threads) thread.join();
    return Report();
  }

 private:
  void MakeTemplate() {
    m_template = m_dir.File("template");
    fs::create_directories(m_template + "/log");
    m_templateEnd = RunHost(m_template, Work(kFirstSeed, ""));
  }

  // The calls of a kind that a run without a fault makes. Of the allocations, which are many, the
  // first of each place that allocates.
  std::vector<long> CallsOf(const Kind& kind, bool later) {
    const std::string data = m_dir.File("list");
    Prepare(data, later);
    const HostEnd end = RunHost(data, Work(kSecondSeed, std::string(kind.name) + " list -1 0"));
    fs::remove_all(data);
    std::vector<long> calls;
    for (const std::string& line : end.lines) {
      if (line[0] == 'N') calls.push_back(std::atol(line.c_str() + 1));
    }
    if (calls.empty() || &kind == kAllocations) return calls;
    for (int i = 0; i < kMoreCalls; ++i) calls.push_back(calls.back() + 1);
    return calls;
  }

  void Prepare(const std::string& data, bool later) const {
    if (later) {
      fs::copy(m_template, data, fs::copy_options::recursive);
    } else {
      fs::create_directories(data + "/log");
    }
  }

  void PlanAll() {
    for (const Kind& kind : kKinds) {
      for (const bool later : {true, false}) {
        for (const long number : CallsOf(kind, later)) {
          m_cases.push_back({&kind, "once", later, number});
          m_cases.push_back({&kind, "from", later, number});
        }
      }
    }
    // So that a short run sees some of everything, and of the allocations no more than of the rest.
    std::minstd_rand random(m_options.seed);
    for (Case& one : m_cases) {
      one.turn = random() % (one.kind == kAllocations ? kLastTurn : kLastTurn / kAllocationShare);
    }
    std::sort(m_cases.begin(), m_cases.end(),
              [](const Case& a, const Case& b) { return a.turn < b.turn; });
  }

  // "later,write,once,7", or with a kind alone all of it.
  void PlanOne() {
    std::string name = m_options.only;
    std::replace(name.begin(), name.end(), ',', ' ');
    std::istringstream words(name);
    std::string start;
    std::string kind;
    std::string mode;
    long number = 0;
    words >> start >> kind >> mode >> number;
    for (const Kind& known : kKinds) {
      if (kind == known.name) m_cases.push_back({&known, mode, start == "later", number});
    }
  }

  void TakeCases() {
    for (std::size_t i; (i = m_next.fetch_add(1)) < m_cases.size() && Clock::now() < m_ends;) {
      RunCase(m_cases[i], m_dir.File("case" + std::to_string(i)));
    }
  }

  void RunCase(const Case& one, const std::string& data) {
    Prepare(data, one.later);
    campaign::Model model(data);
    if (one.later) (void)model.Learn(m_templateEnd);
    const HostEnd end = RunHost(data, Work(kSecondSeed, one.Faults()));
    bool isForeign = false;
    std::string wrong = WrongIn(end, data, &isForeign);
    wrong += model.Learn(end);
    // A disk that goes on refusing leaves events nowhere but in memory; tracking that finds no
    // memory as it starts takes none, and the log says so.
    wrong += model.Check(one.mode == "once" && one.kind != kAllocations && end.status == 0);
    if (m_options.only.empty()) {
      fs::remove_all(data);
      fs::remove(data + ".stderr");
    }
    const std::lock_guard<std::mutex> hold(m_lock);
    ++m_runs[one.kind->name];
    m_foreign += isForeign ? 1 : 0;
    if (wrong.empty()) return;
    ++m_found[one.kind->name];
    std::printf("finding: --only %s:%s\n", one.Name().c_str(), wrong.c_str());
    std::fflush(stdout);
  }

  int Report() {
    Json::Value result;
    int findings = 0;
    int runs = 0;
    for (const Kind& kind : kKinds) {
      const auto planned = std::count_if(m_cases.begin(), m_cases.end(),
                                         [&](const Case& c) { return c.kind == &kind; });
      std::printf("faults: %-8s %6d of %6d runs, %d findings\n", kind.name, m_runs[kind.name],
                  static_cast<int>(planned), m_found[kind.name]);
      result["kind"].append(kind.name);
      result["planned"].append(static_cast<int>(planned));
      result["run"].append(m_runs[kind.name]);
      result["found"].append(m_found[kind.name]);
      runs += m_runs[kind.name];
      findings += m_found[kind.name];
    }
    std::printf("faults: %d runs ended inside OpenSSL, SQLite or libc, which is not counted\n",
                m_foreign);
    result["foreign"] = m_foreign;
    result["what"] = "the N-th call of the system fails";
    result["rounds"] = runs;
    result["findings"] = findings;
    WriteJson(m_options, result);
    return findings == 0 ? 0 : 1;
  }

  const campaign::Options m_options;
  const Clock::time_point m_ends;
  support::TempDir m_dir;
  std::string m_template;
  HostEnd m_templateEnd;
  std::vector<Case> m_cases;
  std::atomic<std::size_t> m_next{0};
  std::mutex m_lock;  // guards the rest
  std::map<std::string, int> m_runs;
  int m_foreign = 0;
  std::map<std::string, int> m_found;
};

}  // namespace

int main(int argc, char** argv) { return Campaign(campaign::ReadOptions(argc, argv)).Run(); }
