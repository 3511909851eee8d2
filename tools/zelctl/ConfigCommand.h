// "zelctl config": what the library reads from a directory's config.txt.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zelctl {

// DIR: prints all settings, one "key=value" a line in the order of the keys. DIR KEY: the value
// alone; false without that setting. Throws UsageError.
bool ShowConfig(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);

}  // namespace zelctl
