#include "cacheDB/SQLiteWrapper.h"

#include <cstddef>
#include <new>

#include <sqlite3.h>

#include "cacheDB/SQLiteConnectionLock.h"
#include "util/Log.h"
#include "util/PublicUtil.h"
#include "zel_platform/prax.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/SQLiteWrapper";

constexpr int kOpenFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
constexpr int kBusyTimeoutMs = 60000;
constexpr unsigned int kFileMode = 0640;
constexpr int kTested = 1;

// Forces the first page to be read and decrypted; there is no such table.
constexpr char kProbeSql[] = "DROP TABLE IF EXISTS TestOpenTab;";

// The text of an error is not asked for: the log lines carry its code.
int Run(sqlite3* db, const std::string& sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

// SQLite also hands out handles of files that it could not open. They are only fit to be
// closed, and keying them may crash.
bool IsUsable(sqlite3* db) { return db != nullptr && Run(db, "") != SQLITE_MISUSE; }

int ApplyKey(sqlite3* db, const std::string& key) {
  if (!IsUsable(db)) return SQLITE_MISUSE;
  return sqlite3_key(db, key.data(), static_cast<int>(key.size()));
}

int SetBusyTimeout(sqlite3* db) {
  return db == nullptr ? SQLITE_MISUSE : sqlite3_busy_timeout(db, kBusyTimeoutMs);
}

// As the inside of an SQL text literal.
std::string Quoted(const std::string& text) {
  std::string quoted;
  for (const char c : text) {
    if (c == '\'') quoted += c;
    quoted += c;
  }
  return quoted;
}

// Temporary files stay next to the database. SQLite keeps the directory per process.
void SetTempDirectory(sqlite3* db, const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/'));
  (void)Run(db, "PRAGMA temp_store_directory = '" + Quoted(directory) + "';");  // only a wish
}

// A locked file is taken as readable.
bool IsPassed(int result) {
  return result == SQLITE_OK || result == SQLITE_BUSY || result == SQLITE_LOCKED;
}

}  // namespace

RecursiveMutex& SQLiteDB::m_decLock = *new RecursiveMutex;
std::map<std::string, int>& SQLiteDB::m_decryptMap = *new std::map<std::string, int>;

SQLiteDB::SQLiteDB(const std::string& name, const std::string& path, const std::string& databaseKey)
    : dbName(name), dbPath(path), key(databaseKey) {
  ZEL_LOG_MILESTONE(kInfo) << "SQLite Version : " << sqlite3_libversion() << " dbName = " << dbName;
}

SQLiteDB::~SQLiteDB() {
  ZEL_LOG_MILESTONE(kInfo) << "~SQLiteDB";
  SQLiteDB::Close();
}

bool SQLiteDB::IsOpen() {
  RecursiveMutexLock lock(m_connectionLock);
  const bool open = m_connections.count(PublicUtil::GetCurrentThreadId()) != 0;
  ZEL_LOG(kInfo) << "[" << dbName << "] " << (open ? "is open" : "is not open");
  return open;
}

// A failure is logged and set-up goes on: the handle then refuses every operation.
sqlite3* SQLiteDB::Open(const std::string& path) {
  if (IsOpen()) {
    ZEL_LOG(kWarning) << "SQLiteDB is already opened !";
    return nullptr;
  }
  SetReadAndWriteAttribute(path);
  sqlite3* db = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &db, kOpenFlags, nullptr);
  ZEL_LOG_MILESTONE(kInfo) << "[" << dbName << "] sqlite3_open_v2(" << dbPath << ")"
                           << ", return = " << result;
  SetReadAndWriteAttribute(path);  // it may be new
  if (result != SQLITE_OK || db == nullptr) {
    ZEL_LOG_MILESTONE(kError) << "[" << dbName << "] sqlite3_open_v2()"
                              << " resCode = " << result;
  }
  SetTempDirectory(db, path);
  const int timeoutResult = SetBusyTimeout(db);
  if (timeoutResult != SQLITE_OK) {
    ZEL_LOG(kError) << "[" << dbName << "] sqlite3_busy_timeout()"
                    << " resCode = " << timeoutResult;
  }
  return db;
}

void SQLiteDB::Close() {
  RecursiveMutexLock lock(m_connectionLock);
  const auto found = m_connections.find(PublicUtil::GetCurrentThreadId());
  if (found == m_connections.end()) {
    ZEL_LOG(kWarning) << "SQLiteDB is not opened yet !";
    return;
  }
  // Deferred by SQLite until the last statement of the connection is gone.
  const int result = sqlite3_close_v2(found->second);
  ZEL_LOG_MILESTONE(kInfo) << "[" << dbName << "] sqlite3_close()"
                           << " resCode = " << result;
  if (result != SQLITE_OK) {
    ZEL_LOG_MILESTONE(kError) << "[" << dbName << "] sqlite3_close()"
                              << " resCode = " << result;
  }
  m_connections.erase(found);
}

bool SQLiteDB::TestOpen() { return true; }

void SQLiteDB::Key(const std::string& databaseKey) {
  RecursiveMutexLock lock(m_connectionLock);
  sqlite3* const db = GetConn();
  if (db == nullptr) {
    ZEL_LOG(kWarning) << "SQLiteDB is not opened yet !";
    return;
  }
  const int result = ApplyKey(db, databaseKey);
  ZEL_LOG_MILESTONE(kInfo) << "[" << dbName << "] sqlite3_key() = " << result;
  if (result != SQLITE_OK) {
    ZEL_LOG_MILESTONE(kError) << "[" << dbName << "] sqlite3_key() = " << result;
  }
}

bool SQLiteDB::IsCanOpen() {
  SetReadAndWriteAttribute(dbPath);
  ZEL_LOG_MILESTONE(kInfo) << "[" << dbName << "] test open";
  sqlite3* probe = nullptr;
  const int result = sqlite3_open_v2(dbPath.c_str(), &probe, kOpenFlags, nullptr);
  ZEL_LOG_MILESTONE(kInfo) << "Open the db, and the result is " << result;
  if (result != SQLITE_OK || probe == nullptr) {
    const int closeResult = sqlite3_close(probe);  // null is fine
    ZEL_LOG_MILESTONE(kWarning) << "Close the db, and the result is nRet: " << result
                                << ", closeRet: " << closeResult;
    ZEL_LOG_MILESTONE(kInfo) << "Fail to open the db";
    return false;
  }
  if (key.empty()) {
    const int closeResult = sqlite3_close(probe);
    ZEL_LOG_MILESTONE(kInfo) << "Close the db, and the result is " << closeResult;
    return true;
  }
  return ProbeWithKey(probe);
}

// Closes `probe`.
bool SQLiteDB::ProbeWithKey(sqlite3* probe) {
  ZEL_LOG_MILESTONE(kInfo) << "IsCanOpen, key = " << key;
  (void)ApplyKey(probe, key);  // succeeds for a wrong key too; the statement tells
  const int result = Run(probe, kProbeSql);
  if (!IsPassed(result)) {
    const int closeResult = sqlite3_close(probe);
    ZEL_LOG_MILESTONE(kWarning) << "Close the db, and the result is " << result
                                << ", closeRet: " << closeResult;
    return false;
  }
  ZEL_LOG_MILESTONE(kWarning) << "Close the db, and the result is: " << result;
  return ConfirmProbe(probe, result);
}

// Runs the statement once more unless this path has passed before; that result counts then.
bool SQLiteDB::ConfirmProbe(sqlite3* probe, int result) {
  RecursiveMutexLock lock(m_decLock);
  const auto tested = m_decryptMap.find(dbPath);
  if (tested != m_decryptMap.end() && tested->second == kTested) {
    ZEL_LOG_MILESTONE(kInfo) << "has tested, success";
  } else {
    result = Run(probe, kProbeSql);
    ZEL_LOG_MILESTONE(kWarning) << "sqlite3_exec, nRet = " << result;
  }
  ZEL_LOG_MILESTONE(kInfo) << "Test the db, and the result is " << result;
  const int closeResult = sqlite3_close(probe);
  ZEL_LOG_MILESTONE(kInfo) << "Close the db, and the result is " << closeResult;
  if (!IsPassed(result)) {
    ZEL_LOG_MILESTONE(kInfo) << "Fail to open the db";
    return false;
  }
  m_decryptMap[dbPath] = kTested;
  ZEL_LOG_MILESTONE(kInfo) << "Succeed to test open the db";
  return true;
}

std::string SQLiteDB::GetDBName() const { return dbName; }

std::string SQLiteDB::GetDBPath() const { return dbPath; }

sqlite3* SQLiteDB::GetDBConnection() {
  RecursiveMutexLock lock(m_connectionLock);
  if (sqlite3* const held = GetConn()) return held;

  sqlite3* const fresh = AddConnection();
  if (fresh == nullptr) {
    ZEL_LOG(kError) << "open db fail so return null ";
    return nullptr;
  }
  if (!key.empty()) {
    ZEL_LOG_MILESTONE(kInfo) << "GetDBConnection, key = " << key;
    Key(key);
  }
  if (TestOpen()) {
    ZEL_LOG_MILESTONE(kInfo) << "db file is not corrupted.";
    return fresh;
  }

  Close();
  sqlite3* const second = AddConnection();
  if (second == nullptr) {
    ZEL_LOG(kWarning) << "db file damaged : cant not open...";
    return nullptr;
  }
  if (!key.empty()) Key(key);
  return second;
}

sqlite3* SQLiteDB::AddConnection() {
  sqlite3* const db = Open(dbPath);
  if (db != nullptr) m_connections[PublicUtil::GetCurrentThreadId()] = db;
  return db;
}

sqlite3* SQLiteDB::GetConn() {
  RecursiveMutexLock lock(m_connectionLock);
  const auto found = m_connections.find(PublicUtil::GetCurrentThreadId());
  return found == m_connections.end() ? nullptr : found->second;
}

sqlite3* SQLiteDB::GetDBHandle() { return GetConn(); }

void SQLiteDB::Exec(const std::string& sql) {
  RecursiveMutexLock lock(m_connectionLock);
  sqlite3* const db = GetDBConnection();
  if (db == nullptr) {
    ZEL_LOG(kInfo) << "no conn";
    return;
  }
  const int result = Run(db, sql);
  if (result == SQLITE_OK) return;
  ZEL_LOG(kInfo) << "[" << dbName << "] sqlite3_exec(" << sql << ")";
  ZEL_LOG(kError) << "[" << dbName << "] sqlite exception(" << result << "): " << sql;
}

IDataManipulation* SQLiteDB::CreateDataManipulation(const std::string& sql) {
  RecursiveMutexLock lock(m_connectionLock);
  sqlite3* const db = GetDBConnection();
  sqlite3_stmt* handle = nullptr;
  const int result =
      db == nullptr ? SQLITE_MISUSE : sqlite3_prepare_v2(db, sql.c_str(), -1, &handle, nullptr);
  if (result != SQLITE_OK) {
    ZEL_LOG(kInfo) << "[" << dbName << "] sqlite3_prepare_v2(" << sql << ")";
    ZEL_LOG(kError) << "[" << dbName << "] sqlite exception(" << result << "): " << sql;
  }
  auto* const statement = new (std::nothrow) SQLiteStmt(handle, dbName, sql);
  if (statement == nullptr) (void)sqlite3_finalize(handle);  // it has not run
  return statement;
}

std::int64_t SQLiteDB::GetLastInsertRowId() {
  RecursiveMutexLock lock(m_connectionLock);
  sqlite3* const db = GetDBConnection();
  if (db == nullptr) return 0;
  SQLiteConnectionLock connection(db);
  return sqlite3_last_insert_rowid(db);
}

bool SQLiteDB::GetAutoCommit() {
  RecursiveMutexLock lock(m_connectionLock);
  sqlite3* const db = GetDBConnection();
  if (db == nullptr) return false;
  SQLiteConnectionLock connection(db);
  return sqlite3_get_autocommit(db) == 1;
}

void SQLiteDB::BeginTransaction() { Exec("BEGIN EXCLUSIVE TRANSACTION;"); }

void SQLiteDB::Rollback() { Exec("ROLLBACK TRANSACTION;"); }

void SQLiteDB::Commit() { Exec("COMMIT TRANSACTION;"); }

void SQLiteDB::SetReadAndWriteAttribute(const std::string& path) const {
  (void)PRAX_Chmod(path.c_str(), kFileMode);  // fails for a file that is still to be created
}

int SQLiteDB::ThreadSafety() { return sqlite3_threadsafe(); }

Transanction::Transanction(IDataStorage* borrowed, bool isEnabled)
    : storage(borrowed), enabled(isEnabled) {
  if (storage == nullptr || !enabled) return;
  nested = !storage->GetAutoCommit();
  if (!nested) storage->BeginTransaction();
}

Transanction::~Transanction() {
  if (storage == nullptr || !enabled || nested || committed) return;
  try {
    storage->Rollback();
  } catch (...) {  // SQLite itself rolls back what is left when the connection closes
  }
}

void Transanction::Commit() {
  if (storage == nullptr || !enabled || nested) return;
  storage->Commit();
  committed = true;
}

}  // namespace commonutil
