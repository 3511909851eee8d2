// Starts of the whole library on real files: what they make, what they survive. A process
// initialises once, so each start is a child of its own.
#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "CommonUtil.h"
#include "cacheDB/CommonUtilDBInterface.h"
#include "logger/logger_ref.h"
#include "prax/prax_ref.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "zel_platform/track.h"

namespace commonutil {
namespace {

namespace fs = std::filesystem;
using support::ReadWholeFile;
using support::WriteWholeFile;

// What a child reports.
enum Outcome : int {
  kRowFound = 10,    // started, and the row of an earlier start is there
  kRowMissing = 11,  // started with an empty cache, which then took and gave back a row
  kInitFailed = 12,  // result 1, and the library still answers
  kWrong = 13,
};

constexpr char kKey[] = "known key";
constexpr char kValue[] = "known value";

bool HasRow() {
  ZelConfigCache row;
  int count = 1;
  SqliteInterfaceManager& cache = SqliteInterfaceManager::GetInst();
  return cache.QueryConfigCache({kKey, kMatchKey}, &row, &count) == 0 && row.value == kValue;
}

int Initialise(const std::string& dir) {
  PRAX_Ref_SetSleepHook([](unsigned int) {});  // key management is tried a hundred times
  tagZelUtilInitParam param = {};
  std::snprintf(param.dbPath, sizeof(param.dbPath), "%s", dir.c_str());
  std::snprintf(param.logPath, sizeof(param.logPath), "%s/log", dir.c_str());
  param.logLevel = 2;
  param.logSize = 1024;
  param.fileCount = 2;
  return CommonUtil::getInst().InitCommonUtil(param, nullptr);
}

Outcome Start(const std::string& dir) {
  const int result = Initialise(dir);
  if (result == 1) return Initialise(dir) == 2 ? kInitFailed : kWrong;
  if (result != 0) return kWrong;
  if (HasRow()) return kRowFound;
  const ZelConfigCache row = {0, kKey, kValue};
  (void)SqliteInterfaceManager::GetInst().BatchAddConfigCache(&row, 1);
  return HasRow() ? kRowMissing : kWrong;
}

class StartupTest : public testing::Test {
 protected:
  StartupTest() {
    fs::create_directory(m_dir.File("log"));
    logger_ref_reset();  // a child would log what was kept
  }

  // A child, which ends tracking so that its events are in their file.
  static int StartIn(const std::string& dir) {
    return support::InChild([&] {
      const Outcome outcome = Start(dir);
      (void)Track_Uninit();
      return outcome;
    });
  }
  int NextStart() { return StartIn(m_dir.Path()); }
  void ExpectNewCache(const std::string& path, const std::string& damaged) {
    WriteWholeFile(path, damaged);
    EXPECT_EQ(NextStart(), kRowMissing) << path << ", " << damaged.size();
    EXPECT_EQ(NextStart(), kRowFound);
  }

  support::TempDir m_dir;
  const std::string m_salt = m_dir.File("sdkcache_config.db");
  const std::string m_database = m_dir.File("sdkcache.db");
  const std::string m_store = m_dir.File("zorm/zormStore.dat");
  const std::string m_backup = m_dir.File("zorm/zormStore_bak.dat");
};

std::string Flipped(std::string content, std::size_t position) {
  content.at(position) = static_cast<char>(content.at(position) ^ 1);
  return content;
}

TEST_F(StartupTest, LogsNeitherKeyNorDirectoryNorValue) {
  EXPECT_EQ(NextStart(), kRowMissing);
  const std::string salt = ReadWholeFile(m_salt);
  EXPECT_TRUE(std::regex_match(salt, std::regex("[0-9A-F]+\\|[0-9A-F]{32}"))) << salt;
  std::string logged;
  for (const auto& entry : fs::directory_iterator(m_dir.File("log"))) {
    logged += ReadWholeFile(entry.path());
  }
  EXPECT_NE(logged, "");
  EXPECT_FALSE(std::regex_search(logged, std::regex("[0-9A-Fa-f]{32}")));
  EXPECT_EQ(logged.find(m_dir.Path()), std::string::npos);
  EXPECT_EQ(logged.find(kValue), std::string::npos);
}

TEST_F(StartupTest, ADamagedSaltFileOrDatabaseCostsTheRowsButNotTheStart) {
  EXPECT_EQ(NextStart(), kRowMissing);
  const std::string whole = ReadWholeFile(m_database);
  for (const std::string& database :
       {std::string(), std::string(20000, '\x5a'), whole.substr(0, 100), Flipped(whole, 200),
        "SQLite format 3" + whole.substr(15)}) {
    ExpectNewCache(m_database, database);
  }
  ExpectNewCache(m_salt, std::string(65536, 'A'));
  ExpectNewCache(m_salt, Flipped(ReadWholeFile(m_salt), 0));  // one digit of the encrypted secret
}

TEST_F(StartupTest, APlaceThatCannotBeUsedFailsTheStartButTheLibraryAnswers) {
  fs::create_directories(m_database + "/full");
  EXPECT_EQ(NextStart(), kInitFailed);
  WriteWholeFile(m_dir.File("file"), "in the way");
  EXPECT_EQ(StartIn(m_dir.File("file") + "/below"), kInitFailed);
}

TEST_F(StartupTest, OneKeyStoreCopyIsEnoughAndNoneStartsWithAnEmptyCache) {
  EXPECT_EQ(NextStart(), kRowMissing);
  WriteWholeFile(m_store, Flipped(ReadWholeFile(m_store), 20));
  EXPECT_EQ(NextStart(), kRowFound);
  fs::remove(m_store);
  ExpectNewCache(m_backup, "damaged");
  WriteWholeFile(m_store, "damaged");
  ExpectNewCache(m_backup, "damaged");
}

}  // namespace
}  // namespace commonutil
