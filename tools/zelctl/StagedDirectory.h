// A private copy of what a data directory's cache consists of, to look at without touching it.
#pragma once

#include <string>

namespace zelctl {

class StagedDirectory {
 public:
  // Copies database, salt line and key store, those that there are, into a new directory of mode
  // 0700, which goes with this object. What is no regular file is left out. Throws
  // std::system_error, also for a file that may not be read.
  explicit StagedDirectory(const std::string& source);
  ~StagedDirectory();
  StagedDirectory(const StagedDirectory&) = delete;
  StagedDirectory& operator=(const StagedDirectory&) = delete;

  // Without a "/" at its end.
  const std::string& Path() const { return m_path; }
  std::string Of(const char* name) const { return m_path + "/" + name; }
  // From here on the database is the source's own, by a link: SQLite keeps its side files beside
  // the file that the link leads to. Everything else stays a copy. Throws std::system_error.
  void UseRealDatabase();

 private:
  const std::string m_source;
  std::string m_path;
};

}  // namespace zelctl
