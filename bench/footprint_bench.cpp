// What the library costs a host beyond the libraries that it stands on: time to load, memory, size.
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Ratio.h"

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr int kRounds = 15;
constexpr char kDependencies[] =
    " libstdc++.so.6 libz.so.1 libcrypto.so.3 libssl.so.3 libjsoncpp.so.25 libcurl.so.4";

struct Loaded {
  double nanoseconds;
  double kilobytes;
};

Loaded Load(const std::string& words) {
  const std::vector<double> numbers = NumbersOf("'" ZEL_LOADER "' " + words);
  return {numbers.at(0), numbers.at(1)};
}

// The bytes of the library without its symbols.
double StrippedBytes(const fs::path& dir) {
  const fs::path stripped = dir / "stripped.so";
  if (std::system(
          ("strip --strip-unneeded -o '" + stripped.string() + "' '" ZEL_LIBRARY "'").c_str()) !=
      0) {
    std::abort();
  }
  return static_cast<double>(fs::file_size(stripped));
}

}  // namespace

void BenchFootprint() {
  std::string dir = (fs::temp_directory_path() / "zel-bench-loadXXXXXX").string();
  if (mkdtemp(dir.data()) == nullptr) std::abort();
  const std::string all = std::string(kDependencies) + " '" ZEL_LIBRARY "'";
  const std::string initialise = "--init '" + dir + "'" + all;
  const std::string derive = "--derive -" + std::string(kDependencies);
  (void)Load(initialise);  // the first start makes the files

  std::vector<double> time;
  std::vector<double> loaded;
  std::vector<double> initialised;
  for (int i = 0; i < kRounds; ++i) {
    const Loaded alone = Load(kDependencies);
    const Loaded ours = Load(all);
    time.push_back(ours.nanoseconds - alone.nanoseconds);
    loaded.push_back(ours.kilobytes - alone.kilobytes);
    initialised.push_back(Load(initialise).kilobytes - Load(derive).kilobytes);
  }
  PrintFigure("load beyond its dependencies (goal 1 ms)", Median(time) / 1e6, "ms");
  PrintFigure("resident after load, beyond them (goal 3 MB)", Median(loaded) / 1024, "MB");
  PrintFigure("resident after a start, beyond them (goal 3 MB)", Median(initialised) / 1024, "MB");
  PrintFigure("the stripped library (goal 2.5 MB)", StrippedBytes(dir) / (1024 * 1024), "MB");
  fs::remove_all(dir);
}

}  // namespace bench
