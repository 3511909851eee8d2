// The name rule of the logs that earlier versions of the client wrote.
#pragma once

#include <dirent.h>

namespace commonutil {

// A directory-scan filter: 1 for a name that begins with "zel" or "orb" and holds ".log"
// anywhere, else 0.
int FilterOldVersionLogFun(const dirent* entry);

}  // namespace commonutil
