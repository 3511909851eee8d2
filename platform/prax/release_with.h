// Lets a std::unique_ptr release a handle of a C library with that library's function.
#pragma once

template <auto Release>
struct ReleaseWith {
  template <class T>
  void operator()(T* handle) const noexcept {
    Release(handle);
  }
};
