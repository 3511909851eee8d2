#include "Ratio.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace bench {

namespace {

double Nanoseconds(const Round& round) {
  const auto start = std::chrono::steady_clock::now();
  round();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

void PrintHeading() {
  std::printf("%-44s %12s %12s %7s %7s   %s\n", "work", "ours", "peer", "ratio", "goal", "peer");
}

void PrintFigure(const std::string& what, const std::string& figure) {
  std::printf("%-44s %s\n", what.c_str(), figure.c_str());
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
  std::printf("%-44s %9.2f us %9.2f us %7.2f %7.2f   %s\n", comparison.what.c_str(),
              Median(oursNs) / 1000, Median(peerNs) / 1000, Median(ratios), comparison.goal,
              comparison.peer.c_str());
  std::fflush(stdout);
}

}  // namespace bench
