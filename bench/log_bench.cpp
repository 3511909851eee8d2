// One masked log line against a rotating sink of spdlog that masks nothing.
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include "Ratio.h"
#include "logger/logger_ref.h"
#include "zel_platform/logger.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr int kLines = 20000;
constexpr int kLimitKb = 5120;
constexpr int kOldFiles = 2;
constexpr std::size_t kBytes = 120;
constexpr char kModule[] = "bench";

constexpr int kWords = 5;

std::string Word(int number) { return "secret-" + std::to_string(number) + "-word"; }

std::string LineWithAllWords() {
  std::string line = "a line about";
  for (int i = 0; i < kWords; ++i) line += " " + Word(i);
  line.resize(kBytes, '.');
  return line;
}

void FromFourThreads(const std::function<void()>& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(body);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

void BenchLog() {
  std::string directory = (std::filesystem::temp_directory_path() / "zel_bench.XXXXXX").string();
  if (::mkdtemp(directory.data()) == nullptr) std::abort();
  const std::string line = LineWithAllWords();
  for (int i = 0; i < kWords; ++i) LogStream::AddSensitiveWord(Word(i));
  if (LogStream::InitLog(kModule, (directory + "/ours.txt").c_str(), kLimitKb, kOldFiles,
                         LOGGER_LEVEL_INFO) != 0) {
    std::abort();
  }
  auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
      directory + "/peer.txt", std::size_t{kLimitKb} * 1024, kOldFiles);
  spdlog::logger peer("bench", sink);
  peer.set_pattern("%Y-%m-%d %H:%M:%S.%e %t %L [%n] [%s %!:%#] %v");
  peer.flush_on(spdlog::level::trace);
  const spdlog::source_loc here{"bench/log_bench.cpp", __LINE__, "BenchLog"};
  const auto log = [&](int lines) {
    for (int i = 0; i < lines; ++i) {
      LogStream::GetLogStream(kModule, LOGGER_LEVEL_INFO, 0, "bench/log_bench", "BenchLog", 1)
          << line;
    }
  };
  Compare(
      {"log: 120 bytes, 5 sensitive words, flushed", "spdlog's rotating sink without masking", 1.2,
       kRounds, kLines},
      [&] { log(kLines); },
      [&] {
        for (int i = 0; i < kLines; ++i) peer.log(here, spdlog::level::info, line);
      });
  Compare(
      {"log: 4 threads, for each line", "1 thread", 1.5, kRounds, kLines},
      [&] { FromFourThreads([&] { log(kLines / 4); }); }, [&] { log(kLines); });
  logger_ref_reset();
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

}  // namespace bench
