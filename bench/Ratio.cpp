#include "Ratio.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

#include <json/json.h>

#include "CommonUtil.h"
#include "zel_platform/logger.h"

namespace bench {

namespace {

constexpr int kGrowthRounds = 3;

// What was printed so far.
Json::Value& Printed() {
  static Json::Value& printed = *new Json::Value(Json::objectValue);
  return printed;
}

bool& Initialised() {
  static bool initialised = false;
  return initialised;
}

double Nanoseconds(const Round& round) {
  const auto start = std::chrono::steady_clock::now();
  round();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

// Three digits, or all of them before the point.
std::string Rounded(double number) {
  const int decimals = number >= 99.95 ? 0 : number >= 9.995 ? 1 : 2;
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", number == std::floor(number) ? 0 : decimals, number);
  return text;
}

std::string TimeText(double us) {
  if (us >= 1000) return Rounded(us / 1000) + " ms";
  return us >= 1 ? Rounded(us) + " us" : Rounded(us * 1000) + " ns";
}

double MedianOfRounds(const SizedRound& round, int size) {
  std::vector<double> times;
  for (int i = 0; i < kGrowthRounds; ++i) times.push_back(round(size));
  return Median(times);
}

}  // namespace

Pinned::Pinned(int core) {
  CPU_ZERO(&m_before);
  (void)sched_getaffinity(0, sizeof(m_before), &m_before);
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(core, &only);
  (void)sched_setaffinity(0, sizeof(only), &only);  // with fewer cores it runs where it may
}

Pinned::~Pinned() { (void)sched_setaffinity(0, sizeof(m_before), &m_before); }

QuietLog::QuietLog() {
  const std::string& directory = LibraryDirectory();
  if (LogStream::InitLog("native_sdk", (directory + "/quiet.txt").c_str(), 1024, 0,
                         LOGGER_LEVEL_WARNING) != 0) {
    std::abort();
  }
}

QuietLog::~QuietLog() {
  const std::string& directory = LibraryDirectory();
  LogStream::UnInitLog("native_sdk");
  (void)LogStream::InitLog("native_sdk", (directory + "/native_sdk.txt").c_str(), 5120, 7,
                           LOGGER_LEVEL_INFO);
}

void PrintHeading() {
  std::printf("%-44s %9s %9s %6s %5s   %s\n", "work", "ours", "peer", "ratio", "goal", "peer");
}

void PrintFigure(const std::string& what, double figure, const std::string& unit) {
  const std::string text = Rounded(figure) + (unit.empty() ? "" : " " + unit);
  std::printf("%-44s %s\n", what.c_str(), text.c_str());
  std::fflush(stdout);
  Json::Value entry;
  entry["work"] = what;
  entry["figure"] = text;
  Printed()["figures"].append(entry);
}

void Compare(const Comparison& comparison, const Round& ours, const Round& peer) {
  CompareTimes(
      comparison, [&] { return Nanoseconds(ours); }, [&] { return Nanoseconds(peer); });
}

void CompareTimes(const Comparison& comparison, const TimedRound& ours, const TimedRound& peer) {
  ours();  // warm
  peer();
  std::vector<double> oursNs;
  std::vector<double> peerNs;
  std::vector<double> ratios;
  for (int round = 0; round < comparison.rounds; ++round) {
    oursNs.push_back(ours() / comparison.divide);
    peerNs.push_back(peer() / comparison.divide);
    ratios.push_back(oursNs.back() / peerNs.back());
  }
  const double oursUs = Median(oursNs) / 1000;
  const double peerUs = Median(peerNs) / 1000;
  std::printf("%-44s %9s %9s %6.2f %5s   %s\n", comparison.what.c_str(), TimeText(oursUs).c_str(),
              TimeText(peerUs).c_str(), Median(ratios),
              comparison.goal > 0 ? Rounded(comparison.goal).c_str() : "", comparison.peer.c_str());
  std::fflush(stdout);
  Json::Value entry;
  entry["work"] = comparison.what;
  entry["peer"] = comparison.peer;
  entry["oursUs"] = oursUs;
  entry["peerUs"] = peerUs;
  entry["ratio"] = Median(ratios);
  entry["goal"] = comparison.goal;
  Printed()["comparisons"].append(entry);
}

void Grow(const std::string& work, int size, const SizedRound& round) {
  (void)round(size);  // warm
  Json::Value entry;
  entry["work"] = work;
  std::string line;
  for (const int times : {1, 10, 100}) {
    const double eachUs = MedianOfRounds(round, size * times) / (size * times) / 1000;
    Json::Value point;
    point["size"] = size * times;
    point["eachUs"] = eachUs;
    entry["points"].append(point);
    char text[64];
    std::snprintf(text, sizeof(text), "%8d: %8s each", size * times, TimeText(eachUs).c_str());
    line += text;
  }
  std::printf("%-32s %s\n", work.c_str(), line.c_str());
  std::fflush(stdout);
  Printed()["growth"].append(entry);
}

bool WriteJson(const std::string& path) {
  std::ofstream file(path);
  file << Printed().toStyledString() << std::flush;
  return file.good();
}

std::vector<double> NumbersOf(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) std::abort();
  std::vector<double> numbers;
  double number = 0;
  while (fscanf(pipe, "%lf", &number) == 1) numbers.push_back(number);
  if (pclose(pipe) != 0 || numbers.empty()) std::abort();
  return numbers;
}

const std::string& LibraryDirectory() {
  static const std::string& directory = *[] {
    auto* const path =
        new std::string((std::filesystem::temp_directory_path() / "zel-benchXXXXXX").string());
    commonutil::tagZelUtilInitParam param = {};
    if (mkdtemp(path->data()) == nullptr) std::abort();
    std::snprintf(param.dbPath, sizeof(param.dbPath), "%s/", path->c_str());
    std::snprintf(param.logPath, sizeof(param.logPath), "%s/", path->c_str());
    param.logLevel = 2;
    param.logSize = 5120;
    param.fileCount = 2;
    if (commonutil::CommonUtil::getInst().InitCommonUtil(param, nullptr) != 0) std::abort();
    Initialised() = true;
    return path;
  }();
  return directory;
}

void RemoveLibraryDirectory() {
  if (Initialised()) std::filesystem::remove_all(LibraryDirectory());
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace bench
