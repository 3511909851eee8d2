// Full load on the library from eight threads at once, in one process.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include <json/value.h>

#include "LoopbackServer.h"
#include "Report.h"
#include "support/TempDir.h"

namespace campaign {

// Initialises the library in a directory of its own, once a process.
class Load {
 public:
  static constexpr std::size_t kThreads = 8;

  explicit Load(Report& report);
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  // Starts the threads, calls `eachSecond` each second, ends the threads. Ends the process when one
  // makes no progress. The operations done.
  long long Run(const std::function<void(int second)>& eachSecond);
  // The operations of each thread, by name.
  Json::Value Operations() const;

 private:
  using Random = std::minstd_rand;
  struct Thread {
    const char* name;
    void (Load::*step)(Random& random);
    std::atomic<long long> steps{0};
  };

  void Import(Random& random);
  void Export(Random& random);
  void Restart(Random& random);
  void ProcessDirectly(Random& random);
  void UseCache(Random& random, const std::string& prefix,
                std::map<std::string, std::string>& known);
  void UseCacheOne(Random& random);
  void UseCacheTwo(Random& random);
  void MoveLogs(Random& random);
  void WatchAndTrack(Random& random);

  void TakeReply(const std::string& text);
  void CheckOrder(unsigned number);
  void Initialise();
  void CheckProgress(int second);

  Report& m_report;
  const support::TempDir m_dir;
  zelctl::LoopbackServer m_origin;
  std::array<Thread, kThreads> m_threads;
  std::atomic<bool> m_isOver{false};
  std::atomic<unsigned> m_imported{0};  // number of the last request that was taken
  std::atomic<unsigned> m_answered{0};  // number of the last reply to one
  std::atomic<unsigned> m_shutDowns{0};
  unsigned m_gaps = 0;                                        // exporting thread's
  unsigned m_direct = 0;                                      // directly processing thread's
  unsigned m_lastDirect = 0;                                  // exporting thread's
  std::map<std::string, std::string> m_knownOne, m_knownTwo;  // of the two cache threads
  std::array<long long, kThreads> m_seenSteps{};
  std::array<int, kThreads> m_seenSecond{};
};

}  // namespace campaign
