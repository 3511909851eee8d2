// A directory of its own for one test, removed with everything in it at the end.
#pragma once

#include <filesystem>
#include <string>

namespace support {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return m_path; }  // without a trailing "/"
  std::string File(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Both throw when the file cannot be read or written whole.
std::string ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const std::string& content);

}  // namespace support
