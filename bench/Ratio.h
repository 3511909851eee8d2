// Compares two ways to do the same work. The two take turns, so that whatever else the machine
// does meets both; the figure is the median of the rounds' ratios.
#pragma once

#include <sched.h>

#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Comparison {
  std::string what;
  std::string peer;
  double goal;    // the ratio not to be exceeded; 0: none
  int rounds;     // at least seven, five where each is slow
  double divide;  // a round's nanoseconds by the operations in it
};

// One round of the work.
using Round = std::function<void()>;

// A round that tells itself how many nanoseconds it took.
using TimedRound = std::function<double()>;

// Run both and print one line of the table.
void Compare(const Comparison& comparison, const Round& ours, const Round& peer);
void CompareTimes(const Comparison& comparison, const TimedRound& ours, const TimedRound& peer);
void PrintHeading();
// A line with one figure and nothing beside it.
void PrintFigure(const std::string& what, double figure, const std::string& unit = "");

// The nanoseconds that `size` pieces of the work took.
using SizedRound = std::function<double(int size)>;

// Runs the work at 1, 10 and 100 times `size` and prints what a piece costs at each.
void Grow(const std::string& work, int size, const SizedRound& round);

// All that was printed, as one JSON object: "comparisons", "figures" and "growth"; false where
// the file cannot be written.
bool WriteJson(const std::string& path);

// Keeps the calling thread, and those that it starts, on one core: a wake-up across cores costs
// several times one on the same core, and where the scheduler puts two threads is chance.
class Pinned {
 public:
  explicit Pinned(int core);
  ~Pinned();
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;

 private:
  cpu_set_t m_before;
};

// While it lives the library logs warnings and errors only, as many hosts want it.
class QuietLog {
 public:
  QuietLog();
  ~QuietLog();
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;
};

// The benchmarks.
void BenchLog();
void BenchDetect();
void BenchMessage();
void BenchProxy();
void BenchQueue();
void BenchRing();
void BenchWorker();
void BenchCache();
void BenchMemory();
void BenchStart();
void BenchTrack();
void BenchMasking();
void BenchCleanup();
void BenchFootprint();
void BenchGrowth();
// Initialises the library, once in this process, and returns the directory of its files.
const std::string& LibraryDirectory();
// Removes it; the last thing that a process does.
void RemoveLibraryDirectory();
// The part of the start's benchmark that runs in a process of its own: prints the nanoseconds that
// it took and returns the exit status, 2 where there is none of that name.
int RunChild(const std::string& name, const std::string& argument);
// Runs a command and returns the numbers it prints.
std::vector<double> NumbersOf(const std::string& command);
double Median(std::vector<double> values);

}  // namespace bench
