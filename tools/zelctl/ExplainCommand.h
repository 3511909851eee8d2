// "zelctl explain": what a result code means.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zelctl {

// CODE [--json]: prints what the catalogue says of a number or a name, or to which family of the
// SDK's codes a number belongs; false for one that is not known. Throws UsageError.
bool ExplainCode(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);

}  // namespace zelctl
