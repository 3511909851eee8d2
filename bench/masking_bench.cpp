// What masking one value costs, by the kind of value.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Ratio.h"
#include "util/PublicUtil.h"

namespace bench {

namespace {

using commonutil::FILTER_WORD_TYPE;
using commonutil::PublicUtil;

constexpr int kMaskings = 200000;

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

}  // namespace

void BenchMasking() {
  ShowRule("mask a name of 20 bytes", commonutil::FILTER_WORD_USERNAME, std::string(20, 'n'));
  ShowRule("mask 4 addresses", commonutil::FILTER_WORD_IP, "10.1.2.3;10.1.2.4;10.1.2.5;10.1.2.6");
  ShowRule("mask a URL of 60 bytes", commonutil::FILTER_WORD_REQ_URL,
           "https://service.example.org:8443/rest/v2/users/4711/settings");
}

}  // namespace bench
