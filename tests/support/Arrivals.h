// What other threads hand over, for a test that waits for it.
#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace support {

template <class T>
class Arrivals {
 public:
  void Add(T value) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_values.push_back(std::move(value));
    m_added.notify_all();
  }
  // Waits for `count` of them and takes all that are there.
  std::vector<T> Take(std::size_t count = 1) {
    std::unique_lock<std::mutex> hold(m_lock);
    m_added.wait(hold, [&] { return m_values.size() >= count; });
    return std::exchange(m_values, {});
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_added;
  std::vector<T> m_values;
};

}  // namespace support
