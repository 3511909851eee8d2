// Runs a clean-up when the scope ends, unless it was dismissed.
#pragma once

#include <utility>

namespace commonutil {

template <class F>
class ScopeGuard {
 public:
  explicit ScopeGuard(F cleanup) : m_cleanup(std::move(cleanup)) {}
  ~ScopeGuard() {
    if (m_armed) m_cleanup();
  }
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;
  void Dismiss() { m_armed = false; }

 private:
  F m_cleanup;
  bool m_armed = true;
};

}  // namespace commonutil
