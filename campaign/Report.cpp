#include "Report.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>

#include <json/writer.h>

namespace campaign {

namespace {

std::mutex& FindingsLock() {
  static std::mutex& lock = *new std::mutex;
  return lock;
}

}  // namespace

Report::Report(const char* what, int seconds, int argc, char** argv) : m_seconds(seconds) {
  for (int i = 1; i < argc; i += 2) {
    const std::string option = argv[i];
    const char* const value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (value != nullptr && option == "--seconds") {
      m_seconds = std::atoi(value);
    } else if (value != nullptr && option == "--seed") {
      m_seed = static_cast<unsigned>(std::strtoul(value, nullptr, 10));
    } else if (value != nullptr && option == "--json") {
      m_file = value;
    } else {
      std::fprintf(stderr, "usage: %s [--seconds N] [--seed N] [--json FILE]\n", argv[0]);
      std::exit(2);
    }
  }
  m_json["what"] = what;
  m_json["seed"] = m_seed;
  m_json["findings"] = Json::arrayValue;
}

void Report::Find(const std::string& finding) {
  const std::lock_guard<std::mutex> hold(FindingsLock());
  std::printf("FINDING %s\n", finding.c_str());
  std::fflush(stdout);
  m_json["findings"].append(finding);
}

int Report::End(long long rounds) {
  const std::lock_guard<std::mutex> hold(FindingsLock());
  m_json["rounds"] = Json::Int64(rounds);
  const unsigned findings = m_json["findings"].size();
  std::printf("%s: %lld rounds, seed %u, %u findings\n", m_json["what"].asCString(), rounds, m_seed,
              findings);
  if (!m_file.empty()) std::ofstream(m_file) << m_json;
  return findings == 0 ? 0 : 1;
}

}  // namespace campaign
