// A masked log line against an unmasked one of another logger; both reach the file at once.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include "Ratio.h"
#include "util/PublicUtil.h"
#include "zel_platform/logger.h"

namespace bench {

namespace {

namespace fs = std::filesystem;
using commonutil::FILTER_WORD_TYPE;
using commonutil::PublicUtil;

constexpr int kRounds = 15;
constexpr int kLines = 20000;
constexpr int kMaskings = 200000;
constexpr int kSizeKb = 5120;
constexpr int kOldFiles = 2;
constexpr char kModule[] = "bench";
constexpr const char* kWords[] = {"alice-secret", "key-4711-0815", "10.20.30.40", "room-token",
                                  "passphrase"};
constexpr char kLine[] =  // with each word once
    "login of alice-secret with key-4711-0815 from 10.20.30.40 into room-token by passphrase, "
    "attempt 1 of 3, result is 0 ok.";
static_assert(sizeof(kLine) - 1 == 120, "a line of usual length");

void ShowRule(const char* what, FILTER_WORD_TYPE type, const std::string& text) {
  std::size_t length = 0;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kMaskings; ++i) length += PublicUtil::filterWord(text, type).size();
  const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
  if (length == 0) std::abort();  // keeps the work
  char figure[32];
  std::snprintf(figure, sizeof(figure), "%.0f ns", took.count() / kMaskings);
  PrintFigure(what, figure);
}

void WriteOurs() {
  for (int i = 0; i < kLines; ++i) {
    LogStream::GetLogStream(kModule, LOGGER_LEVEL_INFO, 0, "bench/masking_bench", "WriteOurs", 1)
        << kLine;
  }
}

void WritePeer(spdlog::logger& peer) {
  for (int i = 0; i < kLines; ++i) {
    peer.log(spdlog::source_loc("bench/masking_bench", 1, "WritePeer"), spdlog::level::info, kLine);
  }
}

}  // namespace

void BenchMasking() {
  std::string dir = (fs::temp_directory_path() / "zel-bench-log-XXXXXX").string();
  if (mkdtemp(dir.data()) == nullptr) std::abort();
  for (const char* word : kWords) LogStream::AddSensitiveWord(word);
  const std::string file = dir + "/ours.txt";
  if (LogStream::InitLog(kModule, file.c_str(), kSizeKb, kOldFiles, LOGGER_LEVEL_INFO) != 0) {
    std::abort();
  }
  spdlog::logger peer("bench", std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
                                   dir + "/peer.txt", kSizeKb * 1024, kOldFiles));
  peer.set_pattern("%Y-%m-%d %H:%M:%S.%e %t %L [%n] [%s %!:%#] %v");
  peer.flush_on(spdlog::level::info);
  Compare({"log line of 120 bytes with 5 sensitive words",
           "spdlog: rotating sink, each line flushed", 1.5, kRounds, kLines},
          WriteOurs, [&] { WritePeer(peer); });
  LogStream::UnInitLog(kModule);
  fs::remove_all(dir);

  ShowRule("mask a name of 20 bytes", commonutil::FILTER_WORD_USERNAME, std::string(20, 'n'));
  ShowRule("mask 4 addresses", commonutil::FILTER_WORD_IP, "10.1.2.3;10.1.2.4;10.1.2.5;10.1.2.6");
  ShowRule("mask a URL of 60 bytes", commonutil::FILTER_WORD_REQ_URL,
           "https://service.example.org:8443/rest/v2/users/4711/settings");
}

}  // namespace bench
