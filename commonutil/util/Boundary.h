// The edge of the library: no exception leaves an exported function or a callback that a
// C library calls.
#pragma once

#include <type_traits>
#include <utility>

namespace commonutil {

// Runs the body of such a function; whatever it throws ends here as `fallback`.
template <class F>
auto AtBoundary(std::invoke_result_t<F> fallback, F&& body) noexcept -> std::invoke_result_t<F> {
  try {
    return std::forward<F>(body)();
  } catch (...) {
    return fallback;
  }
}

template <class F>
void AtBoundary(F&& body) noexcept {
  try {
    std::forward<F>(body)();
  } catch (...) {  // the caller has no use for a failure
  }
}

}  // namespace commonutil
