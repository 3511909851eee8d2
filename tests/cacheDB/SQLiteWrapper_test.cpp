#include "cacheDB/SQLiteWrapper.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include <sqlite3.h>

#include "CacheDbTest.h"
#include "util/Log.h"

namespace commonutil {
namespace {

namespace fs = std::filesystem;
using support::CountLogPrefix;
using support::ReadWholeFile;
using support::WriteWholeFile;

// They differ behind a NUL: a key cut there would open the file.
const std::string kKey("key\0one", 7);
const std::string kOtherKey("key\0two", 7);
constexpr char kMakeTable[] = "CREATE TABLE T(ID INTEGER PRIMARY KEY, NAME TEXT UNIQUE);";
constexpr char kAddRow[] = "INSERT INTO T(NAME) VALUES (NULL);";
constexpr char kCountRows[] = "SELECT COUNT(*) FROM T;";

// The name of the directory would be forgotten rather than freed.
void ShutDownSQLite() {
  sqlite3_free(sqlite3_temp_directory);
  sqlite3_temp_directory = nullptr;
  sqlite3_shutdown();
}

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

class SQLiteWrapperTest : public CacheDbTest {
 protected:
  std::unique_ptr<IDataManipulation> Prepare(const std::string& sql) {
    return std::unique_ptr<IDataManipulation>(m_db.CreateDataManipulation(sql));
  }
  std::string CountRows() { return ReadText(m_db, kCountRows); }

  SQLiteDB m_db{"db", DbFile(), kKey};
};

TEST_F(SQLiteWrapperTest, WritesAnEncryptedFileThatOnlyItsKeyOpens) {
  m_db.Exec(kMakeTable);
  m_db.Exec("INSERT INTO T VALUES (7, 'readable text');");
  EXPECT_EQ(m_db.GetLastInsertRowId(), 7);
  m_db.Close();
  const std::string bytes = ReadWholeFile(DbFile());
  EXPECT_EQ(bytes.find("SQLite format 3"), std::string::npos);
  EXPECT_EQ(bytes.find("readable text"), std::string::npos);
  EXPECT_TRUE(m_db.IsCanOpen());
  EXPECT_FALSE(SQLiteDB("db", DbFile(), kOtherKey).IsCanOpen());
}

TEST_F(SQLiteWrapperTest, AllThreadsShareOneConnectionThatAnyOfThemClosesOnce) {
  sqlite3* const here = m_db.GetDBConnection();
  ASSERT_NE(here, nullptr);
  EXPECT_EQ(m_db.Open(DbFile()), nullptr);
  std::thread([&] {
    EXPECT_EQ(m_db.GetDBConnection(), here);
    m_db.Close();
  }).join();
  EXPECT_FALSE(m_db.IsOpen());
  m_db.Close();
  m_db.Key(kKey);
  ExpectLog({{kWarning, "SQLiteDB is already opened !"},
             {kInfo, "[db] sqlite3_close() resCode = 0"},
             {kInfo, "[db] is not open", 2},  // asked once while opening
             {kWarning, "SQLiteDB is not opened yet !", 2}});
}

TEST_F(SQLiteWrapperTest, ProbeWithoutAKeyAcceptsAnyFileAndWithOneRejectsWhatIsNoDatabase) {
  WriteWholeFile(DbFile(), std::string(5000, 'x'));
  EXPECT_TRUE(SQLiteDB("db", DbFile(), "").IsCanOpen());
  EXPECT_FALSE(m_db.IsCanOpen());
  ExpectLog({{kWarning, "Close the db, and the result is 26, closeRet: 0"}});
  EXPECT_EQ(ReadWholeFile(DbFile()), std::string(5000, 'x'));
}

TEST_F(SQLiteWrapperTest, ProbeTakesALockedFileAsReadableAndConfirmsAPathOnceInAProcess) {
  m_db.Exec(kMakeTable);
  m_db.Exec("PRAGMA locking_mode = EXCLUSIVE;");
  m_db.BeginTransaction();
  EXPECT_TRUE(SQLiteDB("other", DbFile(), kKey).IsCanOpen());
  m_db.Close();
  EXPECT_TRUE(m_db.IsCanOpen());
  ExpectLog({{kWarning, "Close the db, and the result is: 5"},
             {kWarning, "sqlite3_exec, nRet = 5"},
             {kWarning, "Close the db, and the result is: 0"},
             {kWarning, "sqlite3_exec, nRet = 0", 0},
             {kInfo, "has tested, success"},
             {kInfo, "Succeed to test open the db", 2}});
}

TEST_F(SQLiteWrapperTest, ABeginningOfSQLiteWithoutMemoryGivesNoVerdictOnADatabase) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which SQLite has not begun
  const auto open = [&] {
    sqlite3* made = nullptr;
    (void)sqlite3_open(DbFile().c_str(), &made);
    (void)sqlite3_key(made, kKey.data(), static_cast<int>(kKey.size()));
    (void)sqlite3_exec(made, kMakeTable, nullptr, nullptr, nullptr);
    (void)sqlite3_close(made);
    return OpenAsMemoryReturns(DbFile());
  };
  // No leak is looked for at the end: what the encryption had when it failed, it forgets.
  EXPECT_EXIT(::_exit(open()), testing::ExitedWithCode(0), "");
}

class UnopenableDB : public SQLiteDB {
 public:
  using SQLiteDB::SQLiteDB;
  sqlite3* Open(const std::string&) override { return nullptr; }
};

// SQLite returns a handle even for a file that it cannot open; keying such a one has crashed.
TEST_F(SQLiteWrapperTest, EveryOperationIsSafeWithoutAConnection) {
  SQLiteDB missing("db", m_dir.File("missing/file.db"), kKey);
  UnopenableDB unopenable("db", DbFile(), kKey);
  EXPECT_FALSE(missing.IsCanOpen());
  for (SQLiteDB* const db : {&missing, static_cast<SQLiteDB*>(&unopenable)}) {
    db->Exec(kMakeTable);
    EXPECT_EQ(db->GetLastInsertRowId(), 0);
    const std::unique_ptr<IDataManipulation> statement(db->CreateDataManipulation(kAddRow));
    ASSERT_NE(statement, nullptr);
    EXPECT_EQ(statement->Bind(1, 5), 21);
    EXPECT_EQ(statement->Exec(true), -1);
    EXPECT_FALSE(statement->NextRow());
    std::string text = "kept";
    statement->GetValue(0, text);
    EXPECT_EQ(text, "kept");
  }
  EXPECT_FALSE(unopenable.GetAutoCommit());
  ExpectLog({{kWarning, "Close the db, and the result is nRet: 14, closeRet: 0"},
             {kInfo, "Fail to open the db"},
             {kError, "[db] sqlite3_open_v2() resCode = 14"},
             {kError, "[db] sqlite3_key() = 21"},
             {kError, std::string("[db] sqlite exception(21): ") + kMakeTable},
             {kInfo, "no conn"},
             {kInfo, std::string("[db] sqlite3_prepare_v2(") + kAddRow + ")", 2}});
}

// An empty text was stored in its place, and later no row of the same batch any more.
TEST_F(SQLiteWrapperTest, ARowWhoseTextFoundNoMemoryIsNotStoredAndTheNextOneIs) {
  ShutDownSQLite();
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1);  // else there is no limit
  m_db.Exec(kMakeTable);
  const auto insert = Prepare("INSERT INTO T(NAME) VALUES (?);");
  sqlite3_hard_heap_limit64(1);
  EXPECT_EQ(insert->Bind(2, 0.5), SQLITE_RANGE);
  EXPECT_EQ(insert->Bind(1, std::string(5000, 'x')), SQLITE_NOMEM);
  sqlite3_hard_heap_limit64(0);
  EXPECT_EQ(insert->Exec(true), 0);
  EXPECT_EQ(insert->Bind(1, std::string("next")), SQLITE_OK);
  EXPECT_EQ(insert->Exec(true), 1);
  EXPECT_EQ(CountRows(), "1");
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception(", kError), 3);
}

TEST_F(SQLiteWrapperTest, AViolatedConstraintIsSilentUntilSomebodyAsksForTheResult) {
  m_db.Exec(kMakeTable);
  m_db.Exec("INSERT INTO T VALUES (1, 'taken');");
  auto insert = Prepare("INSERT INTO T(NAME) VALUES ('taken');");
  EXPECT_EQ(insert->Exec(true), 0);
  EXPECT_EQ(insert->Exec(false), 0);
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception(19)", kError), 0);
  EXPECT_EQ(insert->Reset(), 19);
  EXPECT_EQ(insert->Exec(false), 0);
  insert.reset();
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception(19)", kError), 2);
  ExpectLog({{kError, " rescode : 19"}});
}

TEST_F(SQLiteWrapperTest, OnlyTheOutermostEnabledGuardEndsATransaction) {
  m_db.Exec(kMakeTable);
  for (const bool commits : {false, true}) {
    const Transanction disabled(&m_db, false);
    const Transanction none(nullptr, true);
    EXPECT_TRUE(m_db.GetAutoCommit());
    Transanction outer(&m_db, true);
    {
      Transanction inner(&m_db, true);
      m_db.Exec(kAddRow);
      inner.Commit();
    }
    EXPECT_FALSE(m_db.GetAutoCommit());
    if (commits) outer.Commit();
  }
  EXPECT_TRUE(m_db.GetAutoCommit());
  EXPECT_EQ(CountRows(), "1");
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception("), 0);
}

// On a shared connection the number of changed rows is whatever statement ran last.
TEST_F(SQLiteWrapperTest, EachThreadGetsTheChangeCountOfItsOwnStatement) {
  m_db.Exec(kMakeTable);
  for (int i = 1; i <= 6; ++i) m_db.Exec(kAddRow);
  std::atomic<int> wrong{0};
  const auto update = [&](int rows) {
    const auto statement = Prepare("UPDATE T SET NAME = NULL WHERE ID <= ?;");
    statement->Bind(1, rows);
    for (int i = 0; i < 1000; ++i) wrong += statement->Exec(true) != rows || !m_db.GetAutoCommit();
  };
  std::thread other(update, 2);
  update(6);
  other.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(SQLiteWrapperTest, ThreadsMayUseAndCloseTheConnectionAtTheSameTime) {
  m_db.Exec(kMakeTable);
  std::thread closer([&] {
    for (int i = 0; i < 20; ++i) m_db.Close();
  });
  for (int i = 0; i < 20; ++i) m_db.Exec(kAddRow);
  closer.join();
  EXPECT_EQ(CountRows(), "20");
}

// The texts differ so much in number that most handles have to make room. A handle left over would
// keep the connection open, and with it the log.
TEST_F(SQLiteWrapperTest, AStatementComesBackWithoutWhatWasBoundAndLetsTheConnectionClose) {
  m_db.Exec(kMakeTable);
  m_db.Exec("INSERT INTO T VALUES (1, 'bound');");
  constexpr char kByName[] = "SELECT ID FROM T WHERE NAME = ?;";
  for (int round = 0; round < 2; ++round) {  // given back in the middle, and taken again
    const auto one = Prepare(kByName);
    const auto other = Prepare(kByName);
    one->Bind(1, std::string("bound"));
    EXPECT_FALSE(other->NextRow());
    EXPECT_TRUE(one->NextRow());
  }
  EXPECT_FALSE(Prepare(kByName)->NextRow());
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(ReadText(m_db, "SELECT " + std::to_string(i) + ";"), std::to_string(i));
  }
  auto outlives = Prepare(kCountRows);
  m_db.Close();
  EXPECT_TRUE(outlives->NextRow());
  EXPECT_TRUE(fs::exists(DbFile() + "-wal"));
  outlives.reset();
  EXPECT_FALSE(fs::exists(DbFile() + "-wal"));
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception("), 0);
}

class SQLiteLogTest : public SQLiteWrapperTest {
 protected:
  // What a client leaves behind that is killed after `rows` rows.
  void LeaveBehind(const std::string& directory, const std::string& key, int rows) {
    fs::create_directory(m_dir.File(directory));
    const std::string living = m_dir.File(directory + "/living.db");
    SQLiteDB db("db", living, key);
    db.Exec(kMakeTable);
    db.Exec("PRAGMA wal_checkpoint(TRUNCATE);");
    for (int i = 0; i < rows; ++i) db.Exec(kAddRow);
    fs::copy_file(living, FileIn(directory));
    fs::copy_file(living + "-wal", LogIn(directory));
  }
  // The rows of a left database at its next start; "-1" when it does not pass.
  std::string RowsAfterStart(const std::string& directory) {
    SQLiteDB db("db", FileIn(directory), kKey);
    return db.IsCanOpen() ? ReadText(db, kCountRows) : "-1";
  }
  std::string FileIn(const std::string& directory) { return m_dir.File(directory + "/file.db"); }
  std::string LogIn(const std::string& directory) { return FileIn(directory) + "-wal"; }
};

TEST_F(SQLiteLogTest, TheLogHasTheModeOfItsDatabaseAndGoesWithTheConnection) {
  const mode_t before = ::umask(0777);
  m_db.Exec(kMakeTable);
  ::umask(before);
  for (const char* const suffix : {"", "-wal", "-shm"}) {
    EXPECT_EQ(ModeOf(DbFile() + suffix), 0640u) << suffix;
  }
  EXPECT_EQ(ReadText(m_db, "PRAGMA synchronous;"), "1");
  EXPECT_EQ(ReadWholeFile(DbFile() + "-wal").find("CREATE TABLE"), std::string::npos);
  m_db.Exec("PRAGMA journal_mode = DELETE;");  // as an earlier version has left it
  m_db.Close();
  EXPECT_EQ(ReadText(m_db, "PRAGMA journal_mode;"), "wal");
  EXPECT_EQ(CountRows(), "0");
  m_db.Close();
  for (const char* const suffix : {"-wal", "-shm"}) EXPECT_FALSE(fs::exists(DbFile() + suffix));
}

TEST_F(SQLiteLogTest, WhatAKilledClientHasWrittenIsThereWhateverBecameOfTheEndOfItsLog) {
  struct Case {
    const char* name;
    std::function<void(std::string&)> damage;
    const char* rows;
  };
  for (const Case& c :
       {Case{"whole", [](std::string&) {}, "20"},
        Case{"torn", [](std::string& log) { log.replace(log.size() - 100, 9, "new bytes"); }, "19"},
        Case{"begun", [](std::string& log) { log.resize(10); }, "0"}}) {
    LeaveBehind(c.name, kKey, 20);
    std::string log = ReadWholeFile(LogIn(c.name));
    c.damage(log);
    WriteWholeFile(LogIn(c.name), log);
    EXPECT_EQ(RowsAfterStart(c.name), c.rows) << c.name;
  }
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception("), 0);
}

TEST_F(SQLiteLogTest, ALogOfAnotherDatabaseOrKeyIsRemovedAndTheDatabaseStays) {
  LeaveBehind("own", kKey, 5);
  EXPECT_EQ(RowsAfterStart("own"), "5");
  for (const auto& [key, rows] : {std::pair(kKey, 1), {kKey, 200}, {kOtherKey, 3}}) {
    const std::string other = "other" + std::to_string(rows);
    LeaveBehind(other, key, rows);
    EXPECT_FALSE(fs::exists(LogIn("own")));
    fs::copy_file(LogIn(other), LogIn("own"));
    EXPECT_EQ(RowsAfterStart("own"), "5") << other;
  }
  ExpectLog({{kWarning, "[db] removes a log that is not of this database", 3}});
  EXPECT_EQ(RowsAfterStart("other3"), "-1");
  EXPECT_TRUE(fs::exists(LogIn("other3")));
}

// What the machine refuses tells nothing about the database.
TEST_F(SQLiteLogTest, FilesThatCannotBeOpenedGiveNoVerdictOnADatabase) {
  LeaveBehind("left", kKey, 5);
  SQLiteDB found("db", FileIn("left"), kKey);
  static int filesLeft;
  static sqlite3_vfs* const usual = sqlite3_vfs_find(nullptr);
  sqlite3_vfs scarce = *usual;
  scarce.zName = "scarce";
  scarce.xOpen = [](sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out) {
    file->pMethods = nullptr;
    return filesLeft-- > 0 ? usual->xOpen(usual, name, file, flags, out) : SQLITE_CANTOPEN;
  };
  sqlite3_vfs_register(&scarce, 1);
  int refused = 0;
  for (const int files : {0, 1, 2, 3}) {
    filesLeft = files;
    if (found.IsCanOpen()) continue;
    ++refused;
    EXPECT_TRUE(found.IsProbeVoid()) << files;
  }
  sqlite3_vfs_unregister(&scarce);
  sqlite3_vfs_register(usual, 1);
  EXPECT_GE(refused, 2);
  EXPECT_EQ(RowsAfterStart("left"), "5");
}

// A link into the void where the log's index belongs stands for a system that cannot share memory.
TEST_F(SQLiteLogTest, WithoutSharedMemoryEveryWriteIsSyncedAndALogLeftBehindIsTakenOver) {
  fs::create_symlink("nowhere/at/all", DbFile() + "-shm");
  m_db.Exec(kMakeTable);
  ExpectLog({{kWarning, "[db] no write-ahead log, every write is synced"}});
  m_db.Exec(kAddRow);
  EXPECT_EQ(ReadText(m_db, "PRAGMA journal_mode;"), "delete");
  EXPECT_EQ(ReadText(m_db, "PRAGMA synchronous;"), "2");
  EXPECT_TRUE(SQLiteDB("db", DbFile(), kKey).IsCanOpen());
  EXPECT_EQ(CountRows(), "1");

  LeaveBehind("left", kKey, 20);
  fs::create_symlink("nowhere/at/all", FileIn("left") + "-shm");
  EXPECT_EQ(RowsAfterStart("left"), "20");
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception("), 0);
}

TEST_F(SQLiteLogTest, ADirectoryThatTakesNoFileLeavesTheDatabaseReadable) {
  constexpr uid_t kNobody = 65534;
  const uid_t wasUser = ::getuid();
  const std::string directory = m_dir.File("100% o'clock?#");
  fs::create_directory(directory);
  const std::string file = directory + "/file.db";
  for (const char* const mode : {"wal", "delete"}) {
    {
      SQLiteDB db("db", file, kKey);
      db.Exec("CREATE TABLE IF NOT EXISTS T(ID INTEGER PRIMARY KEY);");
      db.Exec("INSERT OR REPLACE INTO T VALUES (1);");
      EXPECT_EQ(ReadText(db, "PRAGMA temp_store_directory;"), directory);
      db.Exec(std::string("PRAGMA journal_mode = ") + mode + ";");
    }
    support::ClearLog();
    (void)::chmod(directory.c_str(), 0555);
    if (::geteuid() == 0) {  // root may write everywhere
      ASSERT_EQ(::chown(file.c_str(), kNobody, kNobody), 0);
      ASSERT_EQ(::chmod(m_dir.Path().c_str(), 0755), 0);
      ASSERT_EQ(::setresuid(kNobody, kNobody, 0), 0);
    }
    SQLiteDB db("db", file, kKey);
    EXPECT_TRUE(db.IsCanOpen()) << mode;
    db.Exec("INSERT INTO T VALUES (2);");
    EXPECT_EQ(CountLogPrefix("[db] sqlite exception(", kError), 1) << mode;
    EXPECT_EQ(ReadText(db, kCountRows), "1") << mode;
    db.Close();
    ASSERT_EQ(::setresuid(wasUser, wasUser, wasUser), 0);
    (void)::chmod(directory.c_str(), 0755);
  }
}

}  // namespace
}  // namespace commonutil
