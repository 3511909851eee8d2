#include <cstring>

#include "Ratio.h"

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--start") == 0) return bench::StartChild(argv[2]);
  bench::PrintHeading();
  bench::BenchTrack();  // first: it starts tracking its own way
  bench::BenchLog();
  bench::BenchMessage();
  bench::BenchQueue();
  bench::BenchRing();
  bench::BenchWorker();
  bench::BenchCache();
  bench::BenchProxy();
  bench::BenchDetect();
  bench::BenchStart();
  bench::BenchMasking();
  bench::BenchCleanup();
  return 0;
}
