// Full load for a long time: resident memory, descriptors and threads must stay flat.
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "Load.h"

namespace {

namespace fs = std::filesystem;

struct Series {
  const char* name;
  double allowedGrowth;  // of the median of the last third beyond that of the second
  double allowedShare;   // of the second third's, for what is large
  long long (*read)();
  std::vector<long long> samples;
};

long long StatusValue(const std::string& member) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    long long value = 0;
    if (word == member && status >> value) return value;
  }
  return -1;
}

long long OpenDescriptors() {
  const fs::directory_iterator open("/proc/self/fd");
  return std::distance(begin(open), end(open));
}

// Of all arenas: without what the allocator keeps of freed memory.
long long AllocatedKb() {
  const struct mallinfo2 heap = ::mallinfo2();
  return static_cast<long long>((heap.uordblks + heap.hblkhd) / 1024);
}

double Median(std::vector<long long>::const_iterator first,
              std::vector<long long>::const_iterator last) {
  std::vector<long long> sorted(first, last);
  std::sort(sorted.begin(), sorted.end());
  return sorted.empty() ? 0 : static_cast<double>(sorted[sorted.size() / 2]);
}

void Judge(const Series& series, campaign::Report& report) {
  const auto third = static_cast<std::ptrdiff_t>(series.samples.size() / 3);
  const auto end = series.samples.end();
  const double second = Median(end - 2 * third, end - third);
  const double last = Median(end - third, end);
  std::printf("%-12s %10.0f in the second third, %10.0f in the last\n", series.name, second, last);
  if (last - second <= std::max(series.allowedGrowth, second * series.allowedShare)) return;
  report.Find(std::string(series.name) + " grow from " + std::to_string(second) + " to " +
              std::to_string(last));
}

}  // namespace

int main(int argc, char** argv) {
  campaign::Report report("soak", 1800, argc, argv);
  std::vector<Series> all{
      {"resident_kb", 1024, 0.05, [] { return StatusValue("VmRSS:"); }, {}},
      {"allocated_kb", 256, 0.02, AllocatedKb, {}},  // what a leak alone makes grow
      {"descriptors", 2, 0, OpenDescriptors, {}},
      {"threads", 2, 0, [] { return StatusValue("Threads:"); }, {}},
  };
  auto& load = *new campaign::Load(report);  // threads of the library go on
  const long long operations = load.Run([&all](int) {
    for (Series& series : all) series.samples.push_back(series.read());
  });
  for (const Series& series : all) {
    Judge(series, report);
    Json::Value& samples = report.Member(series.name);
    for (const long long sample : series.samples) samples.append(Json::Int64(sample));
  }
  report.Member("operations") = load.Operations();
  return report.End(operations);
}
