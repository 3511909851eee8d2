#include "TempDir.h"

#include <stdlib.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

namespace support {

TempDir::TempDir() : m_path((std::filesystem::temp_directory_path() / "zel-XXXXXX").string()) {
  if (!::mkdtemp(m_path.data())) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + m_path);
  }
}

TempDir::~TempDir() {
  std::error_code ignored;  // a folder left behind is no failure of the test
  std::filesystem::remove_all(m_path, ignored);
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteWholeFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file.write(content.data(), static_cast<std::streamsize>(content.size())).flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

}  // namespace support
