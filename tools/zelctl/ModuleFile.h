// The log files of modules: found, and followed while they grow, are rotated, emptied or removed.
//
// A rotation makes "name.txt" "name.1.txt", that one "name.2.txt" and so on. The file being read
// stays open, so its last lines are not lost, and every file between it and the newest is read too.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zelctl {

struct LogFile {
  std::string path;
  std::string module;
  int number = 0;  // of an old file; the highest is the oldest
};

// The logs that lie in the directory or in its folder "log", which is where a client keeps them:
// by module, the oldest first. Throws std::system_error for a folder that cannot be read.
std::vector<LogFile> FindLogs(const std::string& directory);

class ModuleFile {
 public:
  enum class Start { kAtBegin, kAtEnd };

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

// All logs that FindLogs finds, from what they have when it begins.
class FollowedLogs {
 public:
  using Take = std::function<void(const std::string& module, const std::string& line)>;

  explicit FollowedLogs(std::string directory);

  // Hands out what has come, in whole lines, each with its line feed.
  void TakeNewLines(const Take& take);

 private:
  struct Followed {
    std::string module;
    ModuleFile file;
  };

  void Find(ModuleFile::Start start);

  const std::string m_directory;
  std::map<std::string, Followed> m_files;  // by path
};

}  // namespace zelctl
