// Runs a fuzz target on every file of the given directories, for the ordinary test run. A
// directory that does not exist has no files.
#include <algorithm>
#include <filesystem>
#include <vector>

#include "FuzzInput.h"
#include "support/TempDir.h"

int main(int count, char** arguments) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < count; ++i) {
    if (!fs::is_directory(arguments[i])) continue;
    for (const auto& entry : fs::directory_iterator(arguments[i])) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    std::fprintf(stderr, "%s\n", file.c_str());  // the last one named is the one that failed
    const std::string content = support::ReadWholeFile(file.string());
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()),
                                 content.size());
  }
  return files.empty() ? 1 : 0;
}
