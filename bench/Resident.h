#pragma once

#include <unistd.h>

#include <fstream>

namespace bench {

// What this process has in memory, in KB.
inline long ResidentKb() {
  long total = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace bench
