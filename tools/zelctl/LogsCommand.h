// The subcommands for directories of log files.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zelctl {

// DIR --days N: cleans the directory as the library does, waits for it, prints how many files
// went.
bool CleanLogs(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);

// DIR [--seconds N]: prints the lines that the modules write from now on as "module: line", across
// rotation and for files that appear later, until interrupted or for so long.
bool WatchLogs(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);

}  // namespace zelctl
