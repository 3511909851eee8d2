// Kills the host at random points of its work - after a random time, before a random call of the
// file system, or in the middle of a write - and looks at what is left.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include "cutoff.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using campaign::HostRun;
using Clock = std::chrono::steady_clock;

constexpr unsigned int kKillsPerDirectory = 9;
constexpr int kGoal = 1000;
constexpr unsigned int kLongestUs = 400000;
constexpr unsigned int kMostCalls = 1500;
constexpr unsigned int kCallsOfStart = 60;  // within the first initialisation

// The first of a directory are killed early, so that initialisations are cut off too.
HostRun RandomRun(std::minstd_rand& random, unsigned int kill) {
  HostRun run;
  run.rounds = 100;  // it never comes to an end by itself
  const auto upTo = [&](unsigned int limit) { return 1 + random() % limit; };
  const std::string place = std::to_string(upTo(kill < 2 ? kCallsOfStart : kMostCalls));
  switch (random() % 3) {
    case 0:
      run.killAfterUs = static_cast<int>(upTo(kLongestUs));
      break;
    case 1:
      run.faults = "any kill " + place + " 5";
      break;
    default:
      run.faults = "any torn " + place + " 5";
  }
  run.seed = static_cast<unsigned int>(upTo(100000));
  return run;
}

std::string TellOf(const HostRun& run) {
  return run.faults.empty() ? "after " + std::to_string(run.killAfterUs) + " us" : run.faults;
}

class Campaign {
 public:
  explicit Campaign(const campaign::Options& options) : m_options(options) {}

  int Run() {
    const Clock::time_point begin = Clock::now();
    const auto ends = begin + std::chrono::seconds(m_options.seconds);
    for (unsigned int seed = m_options.seed; m_rounds < kGoal && Clock::now() < ends; ++seed) {
      OneDirectory(seed);
    }
    Json::Value result;
    result["what"] = "kill -9 at random points";
    result["rounds"] = m_rounds;
    result["findings"] = m_findings;
    result["seconds"] = static_cast<Json::Int64>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count());
    result["confirmedBeforeKill"] = m_confirmed;
    WriteJson(m_options, result);
    std::printf("kill: %d rounds, %d of them before the end of the initialisation, %d findings\n",
                m_rounds, m_inStart, m_findings);
    return m_findings == 0 ? 0 : 1;
  }

 private:
  // Kills the host again and again in one directory, then looks at it.
  void OneDirectory(unsigned int seed) {
    support::TempDir dir;
    const std::string data = dir.File("data");
    fs::create_directories(data + "/log");
    campaign::Model model(data);
    std::minstd_rand random(seed);
    std::string points;
    for (unsigned int kill = 0; kill < kKillsPerDirectory; ++kill) {
      const HostRun run = RandomRun(random, kill);
      points += " [" + TellOf(run) + "]";
      const campaign::HostEnd end = RunHost(data, run);
      const std::string wrong = model.Learn(end);
      ++m_rounds;
      int confirmed = 0;
      bool started = false;
      for (const std::string& line : end.lines) {
        confirmed += line[0] == 'A' || line[0] == 'E' ? 1 : 0;
        started = started || line == "I 0";
      }
      m_confirmed.append(confirmed);
      m_inStart += started ? 0 : 1;
      if (end.hung) Find(seed, points, " hangs");
      if (!wrong.empty()) Find(seed, points, wrong);
    }
    const std::string wrong = model.Check(true);
    if (!wrong.empty()) Find(seed, points, wrong);
  }

  void Find(unsigned int seed, const std::string& points, const std::string& wrong) {
    ++m_findings;
    std::printf("finding: --seed %u, killed at%s:%s\n", seed, points.c_str(), wrong.c_str());
  }

  const campaign::Options m_options;
  int m_rounds = 0;
  int m_inStart = 0;
  int m_findings = 0;
  Json::Value m_confirmed{Json::arrayValue};
};

}  // namespace

int main(int argc, char** argv) { return Campaign(campaign::ReadOptions(argc, argv)).Run(); }
