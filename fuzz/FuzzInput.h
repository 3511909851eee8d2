// What the fuzz targets share: taking an input apart, and promises that must hold for any input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

  // 0 when nothing is left.
  unsigned TakeByte() {
    if (m_size == 0) return 0;
    --m_size;
    return *m_data++;
  }
  // Up to the next line feed, which is taken too.
  std::string TakeLine() {
    const std::string rest = Rest();
    const std::string line = rest.substr(0, rest.find('\n'));
    const std::size_t taken = line.size() < m_size ? line.size() + 1 : m_size;
    m_data += taken;
    m_size -= taken;
    return line;
  }
  std::string Rest() const { return std::string(reinterpret_cast<const char*>(m_data), m_size); }

 private:
  const std::uint8_t* m_data;
  std::size_t m_size;
};

// Ends the process when `holds` is false, which makes the input a finding.
inline void Require(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
