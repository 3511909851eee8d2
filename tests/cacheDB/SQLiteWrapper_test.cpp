#include "cacheDB/SQLiteWrapper.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>

#include "CacheDbTest.h"
#include "util/Log.h"

namespace commonutil {
namespace {

using support::CountLog;
using support::CountLogPrefix;
using support::ReadWholeFile;
using support::WriteWholeFile;

constexpr char kKey[] = "6B65792D6F662D746865";
constexpr char kMakeTable[] = "CREATE TABLE T(ID INTEGER PRIMARY KEY, NAME TEXT UNIQUE);";
constexpr char kInsert[] = "INSERT INTO T(ID, NAME) VALUES (?, ?);";
constexpr char kCountRows[] = "SELECT COUNT(*) FROM T;";

unsigned int ModeOf(const std::string& path) {
  return static_cast<unsigned int>(std::filesystem::status(path).permissions());
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
  EXPECT_EQ(ReadText(m_db, "SELECT NAME FROM T;"), "readable text");
  EXPECT_EQ(m_db.GetLastInsertRowId(), 7);
  EXPECT_EQ(ModeOf(DbFile()), 0640u);
  m_db.Close();

  const std::string bytes = ReadWholeFile(DbFile());
  EXPECT_EQ(bytes.find("SQLite format 3"), std::string::npos);
  EXPECT_EQ(bytes.find("readable text"), std::string::npos);
  EXPECT_TRUE(SQLiteDB("db", DbFile(), kKey).IsCanOpen());
  EXPECT_FALSE(SQLiteDB("db", DbFile(), "another key").IsCanOpen());
}

// The keys differ behind a NUL: a key cut there would open the file.
TEST_F(SQLiteWrapperTest, UsesEveryByteOfTheKey) {
  SQLiteDB("db", DbFile(), std::string("a\0b", 3)).Exec(kMakeTable);
  EXPECT_TRUE(SQLiteDB("db", DbFile(), std::string("a\0b", 3)).IsCanOpen());
  EXPECT_FALSE(SQLiteDB("db", DbFile(), std::string("a\0c", 3)).IsCanOpen());
}

TEST_F(SQLiteWrapperTest, AllThreadsShareOneConnectionThatAnyOfThemCloses) {
  sqlite3* const here = m_db.GetDBConnection();
  sqlite3* there = nullptr;
  std::thread([&] {
    there = m_db.GetDBConnection();
    m_db.Close();
  }).join();
  ASSERT_NE(here, nullptr);
  EXPECT_EQ(here, there);
  EXPECT_FALSE(m_db.IsOpen());
  EXPECT_EQ(CountLog("[db] is not open", kInfo), 2);  // asked once while opening
  EXPECT_EQ(m_db.GetConn(), nullptr);
}

TEST_F(SQLiteWrapperTest, RefusesASecondConnectionAndASecondClose) {
  ASSERT_NE(m_db.GetDBConnection(), nullptr);
  EXPECT_EQ(m_db.GetDBHandle(), m_db.GetDBConnection());
  EXPECT_EQ(m_db.Open(DbFile()), nullptr);
  EXPECT_EQ(CountLog("SQLiteDB is already opened !", kWarning), 1);

  m_db.Close();
  EXPECT_EQ(CountLog("[db] sqlite3_close() resCode = 0", kInfo), 1);
  m_db.Close();
  m_db.Key(kKey);
  EXPECT_EQ(CountLog("SQLiteDB is not opened yet !", kWarning), 2);
}

TEST_F(SQLiteWrapperTest, ProbeWithoutAKeyAcceptsAnyFileAndWithOneRejectsWhatIsNoDatabase) {
  WriteWholeFile(DbFile(), std::string(5000, 'x'));
  std::filesystem::permissions(DbFile(), std::filesystem::perms::owner_all);
  EXPECT_TRUE(SQLiteDB("db", DbFile(), "").IsCanOpen());
  EXPECT_EQ(ModeOf(DbFile()), 0640u);
  EXPECT_FALSE(m_db.IsCanOpen());
  EXPECT_EQ(CountLog("Close the db, and the result is 26, closeRet: 0", kWarning), 1);
  EXPECT_EQ(ReadWholeFile(DbFile()), std::string(5000, 'x'));
}

TEST_F(SQLiteWrapperTest, ProbeOfAFileThatCannotBeOpenedFails) {
  SQLiteDB db("db", m_dir.File("missing/file.db"), kKey);
  EXPECT_FALSE(db.IsCanOpen());
  EXPECT_EQ(CountLog("Open the db, and the result is 14", kInfo), 1);
  EXPECT_EQ(CountLog("Close the db, and the result is nRet: 14, closeRet: 0", kWarning), 1);
  EXPECT_EQ(CountLog("Fail to open the db", kInfo), 1);
}

TEST_F(SQLiteWrapperTest, ProbeConfirmsAPathOnceInAProcess) {
  m_db.Exec(kMakeTable);
  EXPECT_TRUE(m_db.IsCanOpen());
  EXPECT_EQ(CountLog("Close the db, and the result is: 0", kWarning), 1);
  EXPECT_EQ(CountLog("sqlite3_exec, nRet = 0", kWarning), 1);
  EXPECT_TRUE(SQLiteDB("other", DbFile(), kKey).IsCanOpen());
  EXPECT_EQ(CountLog("sqlite3_exec, nRet = 0", kWarning), 1);
  EXPECT_EQ(CountLog("has tested, success", kInfo), 1);
  EXPECT_EQ(CountLog("Succeed to test open the db", kInfo), 2);
}

TEST_F(SQLiteWrapperTest, ProbeTakesALockedFileAsReadable) {
  m_db.Exec(kMakeTable);
  m_db.Exec("PRAGMA locking_mode = EXCLUSIVE;");
  m_db.BeginTransaction();
  EXPECT_TRUE(SQLiteDB("other", DbFile(), kKey).IsCanOpen());
  EXPECT_EQ(CountLog("Close the db, and the result is: 5", kWarning), 1);
  EXPECT_EQ(CountLog("Test the db, and the result is 5", kInfo), 1);
  m_db.Rollback();
}

// SQLite returns a handle even for a file that it cannot open; keying such a one has crashed.
TEST_F(SQLiteWrapperTest, AHandleOfAFileThatCannotBeOpenedRefusesEverything) {
  SQLiteDB db("db", m_dir.File("missing/file.db"), kKey);
  EXPECT_NE(db.GetDBConnection(), nullptr);
  EXPECT_EQ(CountLog("[db] sqlite3_open_v2() resCode = 14", kError), 1);
  EXPECT_EQ(CountLog("[db] sqlite3_key() = 21", kInfo), 1);
  EXPECT_EQ(CountLog("[db] sqlite3_key() = 21", kError), 1);

  db.Exec("SELECT 1;");
  EXPECT_EQ(CountLog("[db] sqlite exception(21): SELECT 1;", kError), 1);
  const std::unique_ptr<IDataManipulation> statement(db.CreateDataManipulation("SELECT 2;"));
  ASSERT_NE(statement, nullptr);
  EXPECT_FALSE(statement->NextRow());
  EXPECT_EQ(db.GetLastInsertRowId(), 0);
}

class UnopenableDB : public SQLiteDB {
 public:
  using SQLiteDB::SQLiteDB;
  sqlite3* Open(const std::string&) override { return nullptr; }
};

TEST_F(SQLiteWrapperTest, EveryOperationIsSafeWithoutAConnection) {
  UnopenableDB db("db", DbFile(), kKey);
  EXPECT_EQ(db.GetDBConnection(), nullptr);
  EXPECT_EQ(CountLog("open db fail so return null ", kError), 1);
  db.Exec(kMakeTable);
  EXPECT_EQ(CountLog("no conn", kInfo), 1);
  EXPECT_FALSE(db.GetAutoCommit());
  EXPECT_EQ(db.GetLastInsertRowId(), 0);

  const std::unique_ptr<IDataManipulation> statement(db.CreateDataManipulation(kInsert));
  ASSERT_NE(statement, nullptr);
  EXPECT_EQ(CountLog(std::string("[db] sqlite3_prepare_v2(") + kInsert + ")", kInfo), 1);
  EXPECT_EQ(statement->Bind(1, 5), 21);
  EXPECT_EQ(statement->Exec(true), -1);
  EXPECT_EQ(statement->Reset(), 0);
  std::string text = "kept";
  statement->GetValue(0, text);
  EXPECT_EQ(text, "kept");
}

TEST_F(SQLiteWrapperTest, KeepsTemporaryFilesBesideTheDatabaseWhateverItsDirectoryIsCalled) {
  const std::string directory = m_dir.File("o'clock");
  std::filesystem::create_directory(directory);
  SQLiteDB db("db", directory + "/file.db", kKey);
  EXPECT_EQ(ReadText(db, "PRAGMA temp_store_directory;"), directory);
}

TEST_F(SQLiteWrapperTest, BindsAndReadsEveryType) {
  m_db.Exec("CREATE TABLE V(I, L, D, S, N);");
  {
    const auto insert = Prepare("INSERT INTO V VALUES (?, ?, ?, ?, ?);");
    EXPECT_EQ(insert->Bind(1, -3), 0);
    EXPECT_EQ(insert->Bind(2, 1LL << 40), 0);
    EXPECT_EQ(insert->Bind(3, 0.5), 0);
    EXPECT_EQ(insert->Bind(4, std::string("cut\0here", 8)), 0);
    EXPECT_EQ(insert->Bind(6, 1), 25);
    EXPECT_EQ(CountLog("[db] sqlite exception(25): INSERT INTO V VALUES (?, ?, ?, ?, ?);"), 1);
    EXPECT_EQ(insert->Exec(true), 1);
  }
  const auto query = Prepare("SELECT I, L, S, N FROM V WHERE D = 0.5;");
  ASSERT_TRUE(query->NextRow());
  int small = 0;
  long long large = 0;
  std::string text;
  std::string untouched = "kept";
  query->GetValue(0, small);
  query->GetValue(1, large);
  query->GetValue(2, text);
  query->GetValue(3, untouched);
  EXPECT_EQ(small, -3);
  EXPECT_EQ(large, 1LL << 40);
  EXPECT_EQ(text, "cut");
  EXPECT_EQ(untouched, "kept");
  EXPECT_FALSE(query->NextRow());
}

TEST_F(SQLiteWrapperTest, AViolatedConstraintIsSilentUntilSomebodyAsksForTheResult) {
  m_db.Exec(kMakeTable);
  m_db.Exec("INSERT INTO T VALUES (1, 'taken');");
  auto insert = Prepare(kInsert);
  insert->Bind(1, 2);
  insert->Bind(2, std::string("taken"));
  EXPECT_EQ(insert->Exec(true), 0);
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception(19)"), 0);

  EXPECT_EQ(insert->Exec(false), 0);
  EXPECT_EQ(insert->Reset(), 19);
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception(19)", kError), 1);

  EXPECT_EQ(insert->Exec(false), 0);
  insert.reset();
  EXPECT_EQ(CountLog(" rescode : 19", kError), 1);
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception(19)", kError), 2);
}

TEST_F(SQLiteWrapperTest, ATransactionGuardRollsBackUnlessItWasCommitted) {
  m_db.Exec(kMakeTable);
  {
    Transanction guard(&m_db, true);
    EXPECT_FALSE(m_db.GetAutoCommit());
    m_db.Exec("INSERT INTO T(NAME) VALUES ('lost');");
  }
  EXPECT_TRUE(m_db.GetAutoCommit());
  EXPECT_EQ(CountRows(), "0");
  {
    Transanction guard(&m_db, true);
    m_db.Exec("INSERT INTO T(NAME) VALUES ('kept');");
    guard.Commit();
  }
  EXPECT_EQ(CountRows(), "1");
}

TEST_F(SQLiteWrapperTest, ANestedOrDisabledGuardLeavesTheTransactionAlone) {
  m_db.Exec(kMakeTable);
  {
    Transanction disabled(&m_db, false);
    Transanction none(nullptr, true);
    EXPECT_TRUE(m_db.GetAutoCommit());
  }
  Transanction outer(&m_db, true);
  {
    Transanction inner(&m_db, true);
    m_db.Exec("INSERT INTO T(NAME) VALUES ('inner');");
    inner.Commit();
    EXPECT_FALSE(m_db.GetAutoCommit());
  }
  EXPECT_FALSE(m_db.GetAutoCommit());
  outer.Commit();
  EXPECT_EQ(CountRows(), "1");
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception("), 0);
}

// On a shared connection the number of changed rows is whatever statement ran last.
TEST_F(SQLiteWrapperTest, EachThreadGetsTheChangeCountOfItsOwnStatement) {
  m_db.Exec(kMakeTable);
  for (int i = 1; i <= 6; ++i) m_db.Exec("INSERT INTO T(NAME) VALUES (NULL);");
  std::atomic<int> wrong{0};
  const auto update = [&](int rows) {
    const auto statement = Prepare("UPDATE T SET NAME = NULL WHERE ID <= ?;");
    statement->Bind(1, rows);
    for (int i = 0; i < 100; ++i) {
      if (statement->Exec(true) != rows) ++wrong;
      if (!m_db.GetAutoCommit()) ++wrong;
    }
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
  for (int i = 0; i < 20; ++i) m_db.Exec("INSERT INTO T(NAME) VALUES (NULL);");
  closer.join();
  EXPECT_EQ(CountRows(), "20");
}

// The texts differ so much in number that most handles have to make room. A handle left over would
// keep the connection open, and with it the log.
TEST_F(SQLiteWrapperTest, AStatementComesBackWithoutWhatWasBoundAndLetsTheConnectionClose) {
  m_db.Exec(kMakeTable);
  m_db.Exec("INSERT INTO T VALUES (1, 'bound');");
  constexpr char kByName[] = "SELECT ID FROM T WHERE NAME = ?;";
  {
    const auto query = Prepare(kByName);
    query->Bind(1, std::string("bound"));
    EXPECT_TRUE(query->NextRow());  // and is given back in the middle
  }
  EXPECT_FALSE(Prepare(kByName)->NextRow());
  {
    const auto one = Prepare(kByName);
    const auto other = Prepare(kByName);
    one->Bind(1, std::string("bound"));
    EXPECT_FALSE(other->NextRow());
    EXPECT_TRUE(one->NextRow());
  }
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(ReadText(m_db, "SELECT " + std::to_string(i) + ";"), std::to_string(i));
  }
  EXPECT_EQ(ReadText(m_db, "SELECT * FROM T;"), "1");
  m_db.Exec("DROP TABLE T;");
  m_db.Exec("CREATE TABLE T(NAME TEXT, ID INTEGER);");
  m_db.Exec("INSERT INTO T VALUES ('first', 2);");
  EXPECT_EQ(ReadText(m_db, "SELECT * FROM T;"), "first");

  auto outlives = Prepare("SELECT COUNT(*) FROM T;");
  m_db.Close();
  EXPECT_TRUE(outlives->NextRow());
  EXPECT_TRUE(std::filesystem::exists(DbFile() + "-wal"));
  outlives.reset();
  EXPECT_FALSE(std::filesystem::exists(DbFile() + "-wal"));
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception("), 0);
}

constexpr char kNoLog[] = "[db] no write-ahead log, every write is synced";

// What a client leaves behind that is killed after `rows` rows.
class SQLiteLogTest : public SQLiteWrapperTest {
 protected:
  void LeaveBehind(const std::string& directory, const std::string& key, int rows) {
    SQLiteDB living("db", m_dir.File("living.db"), key);
    living.Exec(kMakeTable);
    living.Exec("PRAGMA wal_checkpoint(TRUNCATE);");
    for (int i = 1; i <= rows; ++i) {
      living.Exec("INSERT INTO T VALUES (" + std::to_string(i) + ", NULL);");
    }
    std::filesystem::create_directory(m_dir.File(directory));
    for (const char* const suffix : {"", "-wal"}) {
      std::filesystem::copy_file(m_dir.File("living.db") + suffix,
                                 m_dir.File(directory + "/file.db") + suffix);
    }
    living.Close();
    std::filesystem::remove(m_dir.File("living.db"));
  }
  // The rows of a left database at its next start; "-1" when it does not pass.
  std::string RowsAfterStart(const std::string& directory) {
    SQLiteDB db("db", m_dir.File(directory + "/file.db"), kKey);
    return db.IsCanOpen() ? ReadText(db, kCountRows) : "-1";
  }
  std::string LogOf(const std::string& directory) { return m_dir.File(directory + "/file.db-wal"); }
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
  EXPECT_FALSE(std::filesystem::exists(DbFile() + "-wal"));
  EXPECT_FALSE(std::filesystem::exists(DbFile() + "-shm"));
}

TEST_F(SQLiteLogTest, WhatAKilledClientHasWrittenIsThereWhateverBecameOfTheEndOfItsLog) {
  for (const char* const directory : {"whole", "cut", "torn", "begun"}) {
    LeaveBehind(directory, kKey, 20);
  }
  std::filesystem::resize_file(LogOf("cut"), std::filesystem::file_size(LogOf("cut")) - 5000);
  std::string log = ReadWholeFile(LogOf("torn"));
  log[log.size() - 100] = static_cast<char>(log[log.size() - 100] ^ 1);
  WriteWholeFile(LogOf("torn"), log);
  std::filesystem::resize_file(LogOf("begun"), 10);
  EXPECT_EQ(RowsAfterStart("whole"), "20");
  EXPECT_EQ(RowsAfterStart("cut"), "19");
  EXPECT_EQ(RowsAfterStart("torn"), "19");
  EXPECT_EQ(RowsAfterStart("begun"), "0");
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception("), 0);
}

TEST_F(SQLiteLogTest, ALogOfAnotherDatabaseOrKeyIsRemovedAndTheDatabaseStays) {
  for (const auto& [key, rows] : {std::pair{kKey, 1}, {kKey, 200}, {"another key", 3}}) {
    const std::string name = key + std::to_string(rows);
    LeaveBehind(name, kKey, 5);
    EXPECT_EQ(RowsAfterStart(name), "5");
    EXPECT_FALSE(std::filesystem::exists(LogOf(name)));
    LeaveBehind("other" + name, key, rows);
    std::filesystem::copy_file(LogOf("other" + name), LogOf(name));
    EXPECT_EQ(RowsAfterStart(name), "5") << name;
  }
  EXPECT_EQ(CountLog("[db] removes a log that is not of this database", kWarning), 3);
  LeaveBehind("lost", "another key", 3);
  EXPECT_EQ(RowsAfterStart("lost"), "-1");
  EXPECT_TRUE(std::filesystem::exists(LogOf("lost")));
}

// A link into the void where the log's index belongs stands for a system that cannot share memory.
TEST_F(SQLiteLogTest, WithoutSharedMemoryEveryWriteIsSyncedAndALogLeftBehindIsTakenOver) {
  std::filesystem::create_symlink("nowhere/at/all", DbFile() + "-shm");
  m_db.Exec(kMakeTable);
  EXPECT_EQ(CountLog(kNoLog, kWarning), 1);
  m_db.Exec("INSERT INTO T VALUES (1, 'written');");
  EXPECT_EQ(ReadText(m_db, "PRAGMA journal_mode;"), "delete");
  EXPECT_EQ(ReadText(m_db, "PRAGMA synchronous;"), "2");
  EXPECT_TRUE(SQLiteDB("db", DbFile(), kKey).IsCanOpen());
  EXPECT_EQ(CountRows(), "1");

  LeaveBehind("left", kKey, 20);
  std::filesystem::create_symlink("nowhere/at/all", m_dir.File("left/file.db-shm"));
  EXPECT_EQ(RowsAfterStart("left"), "20");
  EXPECT_EQ(CountLogPrefix("[db] sqlite exception("), 0);
}

TEST_F(SQLiteLogTest, ADirectoryThatTakesNoFileLeavesTheDatabaseReadable) {
  constexpr uid_t kNobody = 65534;
  const uid_t wasUser = ::getuid();
  const std::string directory = m_dir.File("100% fixed?#");
  std::filesystem::create_directory(directory);
  const std::string file = directory + "/file.db";
  for (const char* const mode : {"wal", "delete"}) {
    {
      SQLiteDB db("db", file, kKey);
      db.Exec("CREATE TABLE IF NOT EXISTS T(ID INTEGER PRIMARY KEY, NAME TEXT UNIQUE);");
      db.Exec("INSERT OR REPLACE INTO T VALUES (1, 'readable');");
      db.Exec(std::string("PRAGMA journal_mode = ") + mode + ";");
    }
    support::ClearLog();
    if (::geteuid() == 0) {  // root may write everywhere
      ASSERT_EQ(::chown(file.c_str(), kNobody, kNobody), 0);
      ASSERT_EQ(::chmod(m_dir.Path().c_str(), 0755), 0);
      ASSERT_EQ(::chmod(directory.c_str(), 0555), 0);
      ASSERT_EQ(::setresuid(kNobody, kNobody, 0), 0);
    }
    (void)::chmod(directory.c_str(), 0555);
    SQLiteDB db("db", file, kKey);
    EXPECT_TRUE(db.IsCanOpen()) << mode;
    EXPECT_EQ(ReadText(db, "SELECT NAME FROM T;"), "readable") << mode;
    db.Exec("INSERT INTO T VALUES (2, 'in vain');");
    EXPECT_EQ(CountLogPrefix("[db] sqlite exception(", kError), 1) << mode;
    EXPECT_EQ(ReadText(db, kCountRows), "1") << mode;
    db.Close();
    ASSERT_EQ(::setresuid(wasUser, wasUser, wasUser), 0);
    (void)::chmod(directory.c_str(), 0755);
  }
}

TEST(SQLiteExceptionTest, NamesTheKnownResultsAndNoOthers) {
  EXPECT_EQ(SQLiteException::GetErrorMsgFromErrorCode(1), "SQLITE_ERROR");
  EXPECT_EQ(SQLiteException::GetErrorMsgFromErrorCode(26), "SQLITE_NOTADB");
  EXPECT_EQ(SQLiteException::GetErrorMsgFromErrorCode(101), "SQLITE_DONE");
  EXPECT_EQ(SQLiteException::GetErrorMsgFromErrorCode(266), "SQLITE_IOERR_READ");
  EXPECT_EQ(SQLiteException::GetErrorMsgFromErrorCode(3082), "SQLITE_IOERR_NOMEM");
  for (const int unknown : {-1, 0, 27, 28, 99, 3338}) {
    EXPECT_EQ(SQLiteException::GetErrorMsgFromErrorCode(unknown), "") << unknown;
  }
  EXPECT_STREQ(SQLiteException(5).what(), "SQLITE_BUSY");
}

}  // namespace
}  // namespace commonutil
