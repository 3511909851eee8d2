// What the machine refuses tells nothing about the database.
#include <cstdlib>
#include <filesystem>
#include <utility>

#include <sqlite3.h>

#include "CacheDbTest.h"
#include "cacheDB/ECSData.h"

namespace commonutil {
namespace {

constexpr char kKey[] = "6B65792D6F662D746865";

// While it lives SQLite opens `some` more files, and none after them.
class FilesLeft {
 public:
  explicit FilesLeft(int some) : m_usual(sqlite3_vfs_find(nullptr)), m_scarce(*m_usual) {
    left = some;
    usual = m_usual;
    m_scarce.zName = "scarce";
    m_scarce.xOpen = [](sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out) {
      file->pMethods = nullptr;
      return left-- > 0 ? usual->xOpen(usual, name, file, flags, out) : SQLITE_CANTOPEN;
    };
    (void)sqlite3_vfs_register(&m_scarce, 1);
  }
  ~FilesLeft() {
    (void)sqlite3_vfs_unregister(&m_scarce);
    (void)sqlite3_vfs_register(m_usual, 1);
  }
  FilesLeft(const FilesLeft&) = delete;
  FilesLeft& operator=(const FilesLeft&) = delete;

 private:
  static inline int left = 0;
  static inline sqlite3_vfs* usual = nullptr;

  sqlite3_vfs* const m_usual;
  sqlite3_vfs m_scarce;
};

// SQLite's memory: how often it was asked for, and which time there is none.
int g_asked = 0;
int g_refused = 0;
void* (*g_usualMalloc)(int) = nullptr;

void* MallocButOnce(int size) { return ++g_asked == g_refused ? nullptr : g_usualMalloc(size); }

void UseMemory(const sqlite3_mem_methods& memory) {
  (void)sqlite3_shutdown();
  (void)sqlite3_config(SQLITE_CONFIG_MALLOC, &memory);
}

// The database that lies at `path` is met without memory at all, then by a beginning of SQLite
// whose last allocation fails, the encryption's, and then with memory. The number of the first
// surprise.
int OpenAsMemoryReturns(const std::string& path) {
  sqlite3_mem_methods usual = {};
  (void)sqlite3_shutdown();
  (void)sqlite3_config(SQLITE_CONFIG_GETMALLOC, &usual);
  g_usualMalloc = usual.xMalloc;
  sqlite3_mem_methods scarce = usual;
  scarce.xMalloc = MallocButOnce;
  UseMemory(scarce);
  (void)sqlite3_initialize();
  g_refused = std::exchange(g_asked, 0);
  sqlite3_mem_methods none = usual;
  none.xInit = [](void*) { return SQLITE_NOMEM; };

  SQLiteDB db("db", path, kKey);
  UseMemory(none);
  if (db.IsCanOpen() || !db.IsProbeVoid()) return 1;
  UseMemory(scarce);
  if (db.IsCanOpen() || !db.IsProbeVoid()) return 2;
  return db.IsCanOpen() ? 0 : 3;
}

using MachineFaultTest = CacheDbTest;

TEST_F(MachineFaultTest, ABeginningOfSQLiteWithoutMemoryGivesNoVerdictOnADatabase) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which SQLite has not begun
  const auto open = [&] {
    sqlite3* made = nullptr;
    (void)sqlite3_open(DbFile().c_str(), &made);
    (void)sqlite3_key(made, kKey, sizeof(kKey) - 1);
    (void)sqlite3_exec(made, "CREATE TABLE T(ID INTEGER);", nullptr, nullptr, nullptr);
    (void)sqlite3_close(made);
    return OpenAsMemoryReturns(DbFile());
  };
  EXPECT_EXIT(std::exit(open()), testing::ExitedWithCode(0), "");
}

// As a killed process leaves it: all rows are in the log.
TEST_F(MachineFaultTest, FilesThatCannotBeOpenedGiveNoVerdictOnADatabase) {
  SQLiteDB running("db", DbFile(), kKey);
  running.Exec("CREATE TABLE T(ID INTEGER);");
  const std::string left = m_dir.File("left.db");
  for (const char* suffix : {"", "-wal"}) {
    std::filesystem::copy_file(DbFile() + suffix, left + suffix);
  }
  SQLiteDB found("left", left, kKey);
  int refused = 0;
  for (int some = 0; some < 4; ++some) {
    const FilesLeft few(some);
    if (found.IsCanOpen()) continue;
    ++refused;
    EXPECT_TRUE(found.IsProbeVoid()) << some << " files";
  }
  EXPECT_GE(refused, 2);
  EXPECT_TRUE(found.IsCanOpen());
  EXPECT_EQ(ReadText(found, "SELECT COUNT(*) FROM T;"), "0");
}

TEST_F(MachineFaultTest, ADatabaseThatFoundNoMemoryIsUnknown) {
  EXPECT_TRUE(ECSData::GetInst().IsUnknown());
  support::WriteWholeFile(DbFile(), std::string(4096, 'x'));
  EXPECT_FALSE(ECSData::GetInst().CheckSDKCacheDB(DbFile(), kKey));
  EXPECT_FALSE(ECSData::GetInst().IsUnknown());
}

}  // namespace
}  // namespace commonutil
