// The initialisation, each in a process of its own, against the key derivations in it.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "CommonUtil.h"
#include "Ratio.h"
#include "sqlite3.h"
#include "zel_platform/crypto.h"

namespace bench {

namespace {

constexpr int kRounds = 9;
// Times that a start opens the database with its key: to use it, and for the two probes that a
// start makes of a database that exists already.
constexpr int kFirstOpenings = 1;
constexpr int kLaterOpenings = 3;
constexpr char kStartChild[] = "--start";
constexpr char kFirstKeysChild[] = "--first-keys";
constexpr char kLaterKeysChild[] = "--later-keys";

using Clock = std::chrono::steady_clock;

std::string MakeDir(const char* name) {
  std::string path = (std::filesystem::temp_directory_path() / name).string() + "XXXXXX";
  if (mkdtemp(path.data()) == nullptr) std::abort();
  return path;
}

// The nanoseconds that this program's work of that name took in a process of its own.
double InChild(const std::string& name, const std::string& argument) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  return NumbersOf("'" + program + "' " + name + " '" + argument + "'").front();
}

double StartInChild(const std::string& dir) { return InChild(kStartChild, dir); }

void DeriveDatabaseKey() {
  const unsigned char text[32] = {};
  unsigned char key[32];
  if (orb_pkcs5_derivekey_ex(text, sizeof(text), 10000, 32, text, sizeof(text), key) != 0) {
    std::abort();
  }
}

// Opens an existing database with its key and reads its first page.
void OpenEncrypted(const std::string& path) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) std::abort();
  const std::string key(64, 'k');
  if (sqlite3_key(db, key.data(), static_cast<int>(key.size())) != SQLITE_OK) std::abort();
  if (sqlite3_exec(db, "CREATE TABLE IF NOT EXISTS t(a);", nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    std::abort();
  }
  sqlite3_close(db);
}

// In a process of its own too: what the libraries of the keys take to begin is no part of ours.
double DeriveInChild(const std::string& database, int openings) {
  return InChild(openings == kFirstOpenings ? kFirstKeysChild : kLaterKeysChild, database);
}

[[noreturn]] void EndChild(Clock::time_point start, int result) {
  const Clock::time_point end = Clock::now();
  std::printf("%.0f\n", std::chrono::duration<double, std::nano>(end - start).count());
  std::fflush(stdout);
  _exit(result);
}

int DeriveChild(const std::string& database, int openings) {
  const Clock::time_point start = Clock::now();
  DeriveDatabaseKey();
  for (int i = 0; i < openings; ++i) OpenEncrypted(database);
  EndChild(start, 0);
}

}  // namespace

int RunChild(const std::string& name, const std::string& argument) {
  if (name == kFirstKeysChild) return DeriveChild(argument, kFirstOpenings);
  if (name == kLaterKeysChild) return DeriveChild(argument, kLaterOpenings);
  if (name != kStartChild) return 2;
  commonutil::tagZelUtilInitParam param = {};
  std::snprintf(param.dbPath, sizeof(param.dbPath), "%s/", argument.c_str());
  std::snprintf(param.logPath, sizeof(param.logPath), "%s/", argument.c_str());
  param.logLevel = 2;
  param.logSize = 5120;
  param.fileCount = 2;
  const Clock::time_point start = Clock::now();
  EndChild(start, commonutil::CommonUtil::getInst().InitCommonUtil(param, nullptr));
}

void BenchStart() {
  const std::string peerDir = MakeDir("zel-bench-peer");
  const std::string database = peerDir + "/peer.db";
  OpenEncrypted(database);
  const std::string laterDir = MakeDir("zel-bench-later");
  (void)StartInChild(laterDir);

  CompareTimes(
      {"initialise, first start", "its key derivations: 1 + 1", 1.2, kRounds, 1},
      [] {
        const std::string dir = MakeDir("zel-bench-first");
        const double nanoseconds = StartInChild(dir);
        std::filesystem::remove_all(dir);
        return nanoseconds;
      },
      [&] { return DeriveInChild(database, kFirstOpenings); });
  CompareTimes(
      {"initialise, later start", "its key derivations: 1 + 3", 1.2, kRounds, 1},
      [&] { return StartInChild(laterDir); },
      [&] { return DeriveInChild(database, kLaterOpenings); });
  std::filesystem::remove_all(peerDir);
  std::filesystem::remove_all(laterDir);
}

}  // namespace bench
