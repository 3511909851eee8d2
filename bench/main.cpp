// Runs all benchmarks, or those named on the command line.
#include <cstdio>
#include <cstring>
#include <vector>

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
    {"memory", bench::BenchMemory},   {"cache", bench::BenchCache},
    {"proxy", bench::BenchProxy},     {"detect", bench::BenchDetect},
    {"start", bench::BenchStart},     {"masking", bench::BenchMasking},
    {"cleanup", bench::BenchCleanup}, {"footprint", bench::BenchFootprint},
    {"growth", bench::BenchGrowth},
};

const Benchmark* Find(const char* name) {
  for (const Benchmark& benchmark : kBenchmarks) {
    if (std::strcmp(benchmark.name, name) == 0) return &benchmark;
  }
  return nullptr;
}

// All, or those named.
int RunNamed(const std::vector<const char*>& names) {
  for (const char* const name : names) {
    if (Find(name) != nullptr) continue;
    std::fprintf(stderr, "zel_bench: no benchmark \"%s\"; there are:", name);
    for (const Benchmark& benchmark : kBenchmarks) std::fprintf(stderr, " %s", benchmark.name);
    std::fprintf(stderr, "\n");
    return 2;
  }
  bench::PrintHeading();
  for (const Benchmark& benchmark : kBenchmarks) {
    if (names.empty()) benchmark.run();
  }
  for (const char* const name : names) Find(name)->run();
  bench::RemoveLibraryDirectory();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int first = 1;
  const char* json = nullptr;
  if (argc >= 3 && std::strcmp(argv[1], "--json") == 0) {
    json = argv[2];
    first = 3;
  } else if (argc == 3 && std::strncmp(argv[1], "--", 2) == 0) {
    return bench::RunChild(argv[1], argv[2]);
  }
  const int result = RunNamed({argv + first, argv + argc});
  if (result != 0 || json == nullptr || bench::WriteJson(json)) return result;
  std::fprintf(stderr, "zel_bench: cannot write %s\n", json);
  return 1;
}
