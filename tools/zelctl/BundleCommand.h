// "zelctl bundle": what support needs of a client, in one archive, without its secrets.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zelctl {

// DIR OUT.tar.gz [--logs DIR] [--max-size SIZE] [--force] [--list] [--json]: writes the archive and
// shows what is in it; with --list it shows the same and writes nothing. Throws UsageError.
bool WriteBundle(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);

}  // namespace zelctl
