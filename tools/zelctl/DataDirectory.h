// The directory in which a session keeps its database, keys and logs.
#pragma once

#include <string>

#include "Options.h"

namespace zelctl {

class DataDirectory {
 public:
  // Makes the directory, what is missing above it, and "log" below it, all with mode 0750;
  // directories that exist are left as they are. Throws UsageError.
  explicit DataDirectory(const std::string& path);

  // The line with each ${DATA} replaced by the absolute path, escaped for a JSON string. A
  // replacement in the text, so that a broken request reaches the library broken.
  std::string Expand(const std::string& line) const;

 private:
  std::string m_escapedPath;
};

}  // namespace zelctl
