// A bar on standard error for what takes long: drawn only on a terminal, from the second second on,
// and wiped away at the end.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace zelctl {

class Progress {
 public:
  // Without a total the bar wanders, and the seconds tell. Ends before anything else is printed.
  explicit Progress(std::string what);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Any thread.
  void SetTotal(unsigned long long total) { m_total = total; }
  void Advance(unsigned long long count) { m_done += count; }

 private:
  void Draw();
  std::string Line(long seconds, int frame) const;

  const std::string m_what;
  std::atomic<unsigned long long> m_total{0};
  std::atomic<unsigned long long> m_done{0};
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_hasEnded = false;  // guarded by m_lock
  std::thread m_thread;     // only on a terminal
};

}  // namespace zelctl
