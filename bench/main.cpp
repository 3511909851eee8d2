// Runs all benchmarks, or those named on the command line.
#include <cstdio>
#include <cstring>

#include "Ratio.h"

namespace {

struct Benchmark {
  const char* name;
  void (*run)();
};

// Tracking comes first: it starts the tracking library its own way.
constexpr Benchmark kBenchmarks[] = {
    {"track", bench::BenchTrack},     {"log", bench::BenchLog},
    {"message", bench::BenchMessage}, {"queue", bench::BenchQueue},
    {"ring", bench::BenchRing},       {"worker", bench::BenchWorker},
    {"cache", bench::BenchCache},     {"proxy", bench::BenchProxy},
    {"detect", bench::BenchDetect},   {"start", bench::BenchStart},
    {"masking", bench::BenchMasking}, {"cleanup", bench::BenchCleanup},
};

const Benchmark* Find(const char* name) {
  for (const Benchmark& benchmark : kBenchmarks) {
    if (std::strcmp(benchmark.name, name) == 0) return &benchmark;
  }
  return nullptr;
}

int RunNamed(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (Find(argv[i]) != nullptr) continue;
    std::fprintf(stderr, "zel_bench: no benchmark \"%s\"; there are:", argv[i]);
    for (const Benchmark& benchmark : kBenchmarks) std::fprintf(stderr, " %s", benchmark.name);
    std::fprintf(stderr, "\n");
    return 2;
  }
  bench::PrintHeading();
  for (int i = 1; i < argc; ++i) Find(argv[i])->run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--start") == 0) return bench::StartChild(argv[2]);
  if (argc > 1) return RunNamed(argc, argv);
  bench::PrintHeading();
  for (const Benchmark& benchmark : kBenchmarks) benchmark.run();
  return 0;
}
