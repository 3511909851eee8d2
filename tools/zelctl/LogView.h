// "zelctl logs view": the lines of all module files of a directory, merged by their time.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zelctl {

// DIR [--module NAME] [--level E|W|I|D] [--since TIME] [--until TIME] [-f]. A time is the beginning
// of a line's, "YYYY-MM-DD HH:MM:SS.mmm", of any length. With -f it goes on with new lines until
// interrupted. A line without a time of its own stands with the one before it. Throws UsageError.
bool ViewLogs(const std::vector<std::string>& arguments, const std::atomic<bool>& interrupted);

}  // namespace zelctl
