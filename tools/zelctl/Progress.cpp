#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <utility>

namespace zelctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kQuiet = std::chrono::seconds(1);
constexpr auto kFrame = std::chrono::milliseconds(100);
constexpr std::size_t kWidth = 30;
constexpr std::size_t kMark = 5;  // of a bar without a total
constexpr char kWipe[] = "\r\033[K";

}  // namespace

Progress::Progress(std::string what) : m_what(std::move(what)) {
  if (::isatty(STDERR_FILENO) == 1) m_thread = std::thread(&Progress::Draw, this);
}

Progress::~Progress() {
  if (!m_thread.joinable()) return;
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_hasEnded = true;
  }
  m_changed.notify_all();
  m_thread.join();
}

void Progress::Draw() {
  const Clock::time_point begin = Clock::now();
  const auto hasEnded = [this] { return m_hasEnded; };
  std::unique_lock<std::mutex> hold(m_lock);
  if (m_changed.wait_for(hold, kQuiet, hasEnded)) return;
  for (int frame = 0; !m_hasEnded; ++frame) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin);
    std::cerr << kWipe + Line(static_cast<long>(seconds.count()), frame) << std::flush;
    m_changed.wait_for(hold, kFrame, hasEnded);
  }
  std::cerr << kWipe << std::flush;
}

std::string Progress::Line(long seconds, int frame) const {
  const unsigned long long total = m_total;
  const unsigned long long done = std::min<unsigned long long>(m_done, total);
  std::string bar(kWidth, '.');
  std::string amount;
  if (total == 0) {
    const std::size_t place = static_cast<std::size_t>(frame) % (kWidth - kMark + 1);
    bar.replace(place, kMark, kMark, '#');
  } else {
    const double share = static_cast<double>(done) / static_cast<double>(total);
    const auto full = static_cast<std::size_t>(share * kWidth);
    bar.replace(0, full, full, '#');
    amount = std::to_string(static_cast<int>(share * 100)) + " % ";
  }
  return m_what + " [" + bar + "] " + amount + std::to_string(seconds) + " s";
}

}  // namespace zelctl
