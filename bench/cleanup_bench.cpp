// The clean-up of a log directory against a bare loop, and find, removing the same half of the same
// tree.
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Ratio.h"
#include "util/LogBusiness.h"

namespace bench {

namespace {

namespace fs = std::filesystem;
using commonutil::LogBusiness;

constexpr int kRounds = 7;
constexpr int kWarmRounds = 1;  // of the comparison itself
constexpr int kFiles = 20000;
constexpr int kFilesPerDirectory = 500;
constexpr int kDays = 3;

// Empty: to free blocks costs the same for both, and up to milliseconds on some disks.
void Make(const std::string& path, std::time_t written) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
  const timespec times[2] = {{written, 0}, {written, 0}};
  if (file < 0 || futimens(file, times) != 0) std::abort();
  close(file);
}

// A folder of its own on the disk, with every second file of its tree old.
class Tree {
 public:
  Tree() : m_path((fs::temp_directory_path() / "zel-bench-clean-XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) std::abort();
    const std::time_t now = std::time(nullptr);
    const std::time_t old = now - (kDays + 1) * 86400;
    for (int i = 0; i < kFiles; ++i) {
      const std::string directory = Path() + "/" + std::to_string(i / kFilesPerDirectory);
      if (i % kFilesPerDirectory == 0) fs::create_directories(directory);
      Make(directory + "/module." + std::to_string(i) + ".txt", i % 2 == 0 ? old : now);
    }
  }
  ~Tree() { fs::remove_all(m_path); }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  std::string Path() const { return m_path + "/logs"; }

  void ExpectHalf() const {
    int files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(Path())) {
      files += entry.is_regular_file() ? 1 : 0;
    }
    if (files != kFiles / 2) std::abort();
  }

 private:
  std::string m_path;
};

void CleanWithOurs(const Tree& tree) {
  LogBusiness::InitConfig(tree.Path(), kDays);
  LogBusiness::DoAsyncDelete(LogBusiness::kAfterLogin);
  while (LogBusiness::IsCleaning()) std::this_thread::sleep_for(std::chrono::microseconds(100));
}

void CleanDirectory(int parent, const char* name, std::time_t oldest) {
  const int directory = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const entries = directory < 0 ? nullptr : fdopendir(directory);
  if (entries == nullptr) std::abort();
  while (const dirent* const entry = readdir(entries)) {
    if (entry->d_name[0] == '.') continue;
    if (entry->d_type == DT_DIR) {
      CleanDirectory(directory, entry->d_name, oldest);
      continue;
    }
    struct stat facts;
    if (fstatat(directory, entry->d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0) std::abort();
    if (facts.st_mtime < oldest && unlinkat(directory, entry->d_name, 0) != 0) std::abort();
  }
  closedir(entries);
}

void CleanByHand(const Tree& tree) {
  CleanDirectory(AT_FDCWD, tree.Path().c_str(), std::time(nullptr) - kDays * 86400);
}

void CleanWithFind(const Tree& tree) {
  std::vector<std::string> words = {
      "find", tree.Path(), "-type", "f", "-mtime", "+" + std::to_string(kDays), "-delete"};
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t child = 0;
  int status = 0;
  if (posix_spawnp(&child, "find", nullptr, nullptr, arguments.data(), environ) != 0 ||
      waitpid(child, &status, 0) != child || status != 0) {
    std::abort();
  }
}

using Trees = std::vector<std::unique_ptr<Tree>>;

template <class Clean>
double TimeOf(const Tree& tree, Clean clean) {
  const auto start = std::chrono::steady_clock::now();
  clean(tree);
  const auto end = std::chrono::steady_clock::now();
  tree.ExpectHalf();
  return std::chrono::duration<double, std::nano>(end - start).count();
}

// All trees are made before the first is cleaned: some file systems are slow to make files for
// a while after they have removed many.
void BenchAgainst(const char* peer, double goal, void (*clean)(const Tree& tree)) {
  Trees trees;
  for (int i = 0; i < 2 * (kRounds + kWarmRounds); ++i) trees.push_back(std::make_unique<Tree>());
  auto next = trees.cbegin();
  CompareTimes(
      {"clean-up: 20000 files, half of them old", peer, goal, kRounds, 1},
      [&] { return TimeOf(**next++, CleanWithOurs); }, [&] { return TimeOf(**next++, clean); });
}

}  // namespace

void BenchCleanup() {
  BenchAgainst("openat, readdir, fstatat and unlinkat", 1.05, CleanByHand);
  BenchAgainst("find -type f -mtime +N -delete", 0, CleanWithFind);
}

}  // namespace bench
