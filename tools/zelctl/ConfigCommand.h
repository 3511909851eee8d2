// "zelctl config": what the library reads from a directory's config.txt.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zelctl {

// DIR: prints all settings, one "key=value" a line in the order of the keys, passwords replaced.
// DIR KEY: the value alone, as it is; false without that setting. Changes nothing. Throws
// UsageError.
bool ShowConfig(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);

}  // namespace zelctl
