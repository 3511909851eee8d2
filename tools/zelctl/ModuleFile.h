// The log file of one module, followed while it grows, is rotated, emptied or removed.
//
// A rotation makes "name.txt" "name.1.txt", that one "name.2.txt" and so on. The file being read
// stays open, so its last lines are not lost, and every file between it and the newest is read too.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace zelctl {

class ModuleFile {
 public:
  enum class Start { kAtBegin, kAtEnd };

  // The module whose current log has this file name; nothing for any other file.
  static std::optional<std::string> ModuleOf(const std::string& fileName);

  ModuleFile(std::string path, Start start);

  // Whole lines, each with its line feed.
  std::vector<std::string> TakeNewLines();

 private:
  // Owns one descriptor.
  class Reader {
   public:
    explicit Reader(const std::string& path);  // only a regular file is opened
    ~Reader();
    Reader(Reader&& other) noexcept;
    Reader& operator=(Reader&& other) noexcept;

    bool IsOpen() const { return m_descriptor >= 0; }
    bool IsSameFile(const Reader& other) const;
    bool IsOlderThan(const Reader& other) const;  // by the last write
    void SkipToEnd();
    void AppendNewTo(std::string& text);

   private:
    int m_descriptor = -1;
    off_t m_offset = 0;
    struct stat m_facts = {};
  };

  std::string NameOfOld(int number) const;  // 0: the current file
  std::vector<Reader> NewerFiles() const;   // than the one being read, the newest first

  const std::string m_path;
  Reader m_reader;
  std::string m_text;  // read, not yet a whole line
};

}  // namespace zelctl
