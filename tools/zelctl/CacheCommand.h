// The subcommands for the config cache of a data directory whose client does not run.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zelctl {

// Values appear only with --values. Each refuses while another process uses the directory, and one
// whose database does not open. False when that or the work itself fails. Throws UsageError.

// DIR [--values] [--json]: the entries with their sizes.
bool ListCache(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);
// DIR KEY [--values] [--json]: one entry; false when there is none.
bool GetCache(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);
// DIR KEY VALUE: stores an entry; the VALUE "-" is read from standard input, up to its end.
bool PutCache(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);
// DIR KEY: removes an entry; false when there is none.
bool DeleteCache(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);
// DIR FILE [--values]: writes what "list --json" prints to a new file of mode 0600.
bool ExportCache(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);
// DIR [--json]: checks the whole database; false when it is damaged.
bool VerifyCache(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);

}  // namespace zelctl
