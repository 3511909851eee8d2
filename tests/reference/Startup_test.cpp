// Starts of the whole library on real files: what they make, what they survive. A process
// initialises once, so each start is a child of its own.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "CommonUtil.h"
#include "cacheDB/CommonUtilDBInterface.h"
#include "prax/prax_ref.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "zel_platform/track.h"

namespace commonutil {
namespace {

namespace fs = std::filesystem;

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
  const ZelMatchInfo match = {kKey, kMatchKey};
  return SqliteInterfaceManager::GetInst().QueryConfigCache(match, &row, &count) == 0 &&
         count == 1 && row.value == kValue;
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
  if (SqliteInterfaceManager::GetInst().BatchAddConfigCache(&row, 1) != 0) return kWrong;
  return HasRow() ? kRowMissing : kWrong;
}

// One start in a child of its own, which ends tracking so that its events are in their file.
int StartOnce(const std::string& dir) {
  return support::InChild([&] {
    const Outcome outcome = Start(dir);
    (void)Track_Uninit();
    return outcome;
  });
}

class StartupTest : public testing::Test {
 protected:
  StartupTest() { fs::create_directory(m_dir.File("log")); }

  void FirstStart() { ASSERT_EQ(StartOnce(m_dir.Path()), kRowMissing); }
  int NextStart() { return StartOnce(m_dir.Path()); }

  support::TempDir m_dir;
  const std::string m_salt = m_dir.File("sdkcache_config.db");
  const std::string m_database = m_dir.File("sdkcache.db");
  const std::string m_store = m_dir.File("zorm/zormStore.dat");
  const std::string m_backup = m_dir.File("zorm/zormStore_bak.dat");
};

unsigned int ModeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

std::size_t LongestHexRun(const std::string& text) {
  std::size_t longest = 0;
  std::size_t run = 0;
  for (const char c : text) {
    run = std::isxdigit(static_cast<unsigned char>(c)) ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  return longest;
}

void Flip(const std::string& path, std::size_t position) {
  std::string content = support::ReadWholeFile(path);
  ASSERT_GT(content.size(), position);
  content[position] = static_cast<char>(content[position] ^ 1);
  support::WriteWholeFile(path, content);
}

TEST_F(StartupTest, MakesItsFilesFindsThemAgainAndLogsNeitherKeyNorDirectory) {
  FirstStart();
  EXPECT_EQ(ModeOf(m_salt), 0640U);
  EXPECT_EQ(ModeOf(m_database), 0640U);
  EXPECT_EQ(ModeOf(m_store), 0600U);
  EXPECT_EQ(ModeOf(m_backup), 0600U);
  const std::string salt = support::ReadWholeFile(m_salt);
  EXPECT_EQ(LongestHexRun(salt), salt.find('|')) << salt;
  EXPECT_EQ(salt.size() - salt.find('|') - 1, 32U) << salt;
  EXPECT_EQ(support::ReadWholeFile(m_database).find(kValue), std::string::npos);
  EXPECT_EQ(NextStart(), kRowFound);
  EXPECT_EQ(support::ReadWholeFile(m_salt), salt);

  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(m_dir.File("log"))) {
    ++files;
    const std::string text = support::ReadWholeFile(entry.path().string());
    EXPECT_NE(text, "");
    EXPECT_LT(LongestHexRun(text), 32U) << entry.path();
    for (const std::string& secret :
         {salt.substr(0, salt.find('|')), m_dir.Path(), std::string(kValue)}) {
      EXPECT_EQ(text.find(secret), std::string::npos) << entry.path();
    }
  }
  EXPECT_GE(files, 2U);
}

// The umask of a host once left files and directories that nobody could open: the next start, under
// any umask, failed for good.
TEST_F(StartupTest, WhatItMakesUnderAnyUmaskStaysOpenToItsOwner) {
  const mode_t before = ::umask(0777);
  const int outcome = StartOnce(m_dir.Path());
  (void)::umask(before);
  EXPECT_EQ(outcome, kRowMissing);
  for (const auto& entry : fs::recursive_directory_iterator(m_dir.Path())) {
    const unsigned int own = entry.is_directory() ? 0700U : 0600U;
    EXPECT_EQ(ModeOf(entry.path().string()) & own, own) << entry.path();
  }
}

TEST_F(StartupTest, ADamagedSaltFileOrDatabaseCostsTheRowsButNotTheStart) {
  FirstStart();
  const std::string whole = support::ReadWholeFile(m_database);
  const auto expectNew = [&](const std::string& path, const std::string& damaged) {
    support::WriteWholeFile(path, damaged);
    EXPECT_EQ(NextStart(), kRowMissing) << path << damaged.substr(0, 20);
    EXPECT_EQ(NextStart(), kRowFound);
  };
  for (const std::string& salt :
       {std::string(), std::string("|"), std::string("0123456789"), std::string("zz|zz"),
        std::string(65536, 'A'), std::string("\0\0|\0", 4)}) {
    expectNew(m_salt, salt);
  }
  for (const std::string& database :
       {std::string(), std::string("x"), std::string(20000, '\x5a'), whole.substr(0, 100),
        std::string("SQLite format 3\0", 16) + whole.substr(16)}) {
    expectNew(m_database, database);
  }
  Flip(m_database, 200);
  EXPECT_EQ(NextStart(), kRowMissing);
  fs::remove(m_salt);
  EXPECT_EQ(NextStart(), kRowMissing);
  Flip(m_salt, 0);  // one digit of the encrypted secret
  EXPECT_EQ(NextStart(), kRowMissing);
}

TEST_F(StartupTest, APlaceThatCannotBeUsedFailsTheStartButTheLibraryAnswers) {
  fs::create_directories(m_database + "/full");
  EXPECT_EQ(NextStart(), kInitFailed);
  support::WriteWholeFile(m_dir.File("file"), "in the way");
  EXPECT_EQ(StartOnce(m_dir.File("file") + "/below"), kInitFailed);
}

TEST_F(StartupTest, OneKeyStoreCopyIsEnoughAndNoneStartsWithAnEmptyCache) {
  FirstStart();
  Flip(m_store, 20);
  EXPECT_EQ(NextStart(), kRowFound);
  fs::remove(m_store);
  fs::remove(m_backup);
  EXPECT_EQ(NextStart(), kRowMissing);
  support::WriteWholeFile(m_store, "damaged");
  support::WriteWholeFile(m_backup, "damaged");
  EXPECT_EQ(NextStart(), kRowMissing);
  EXPECT_EQ(NextStart(), kRowFound);
}

// Once a start has succeeded, no cut-off of a later one may change the secret.
TEST_F(StartupTest, KilledAtAnyPointItLosesNeitherSecretNorRow) {
  std::minstd_rand random(20240607);
  bool stored = false;
  for (int round = 0; round < 30; ++round) {
    const pid_t child = fork();
    if (child == 0) _exit(Start(m_dir.Path()));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 120000));
    kill(child, SIGKILL);
    const int outcome = support::WaitFor(child);
    stored = stored || outcome == kRowMissing || outcome == kRowFound;
    if (round % 5 != 4) continue;
    const int next = NextStart();
    EXPECT_TRUE(next == kRowFound || (!stored && next == kRowMissing)) << round << ": " << next;
    stored = true;
  }
}

}  // namespace
}  // namespace commonutil
