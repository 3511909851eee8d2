#include "cacheDB/SQLiteWrapper.h"

#include <cstddef>
#include <cstdio>
#include <new>
#include <utility>

#include <sqlite3.h>

#include "cacheDB/IdleStatements.h"
#include "cacheDB/SQLiteConnectionLock.h"
#include "util/Log.h"
#include "util/Mutex.h"
#include "util/PublicUtil.h"
#include "zel_platform/prax.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/SQLiteWrapper";

constexpr int kOpenFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
// For a file that is taken to change no more: no lock, no side file.
constexpr int kFixedFlags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_FULLMUTEX;
constexpr int kBusyTimeoutMs = 60000;
constexpr unsigned int kFileMode = 0640;
constexpr int kTested = 1;

// Forces the first page to be read and decrypted; there is no such table.
constexpr char kProbeSql[] = "DROP TABLE IF EXISTS TestOpenTab;";

constexpr char kReadSql[] = "SELECT COUNT(*) FROM sqlite_master;";
constexpr char kPagesSql[] = "PRAGMA page_count;";
constexpr char kUnsyncedSql[] = "PRAGMA synchronous = OFF;";
constexpr char kSyncedSql[] = "PRAGMA synchronous = FULL;";
constexpr char kWriteAheadSql[] = "PRAGMA journal_mode = WAL;";
// Reaches for all that a write needs, and writes nothing.
constexpr char kTrySql[] = "BEGIN IMMEDIATE; ROLLBACK;";
// The log is taken over at 1000 pages, SQLite's default; only a large batch makes it longer than
// this for a while.
constexpr char kTuneSql[] = "PRAGMA synchronous = NORMAL; PRAGMA journal_size_limit = 4194304;";
// Alone with the database SQLite keeps the index of the log in its own memory. The log is taken
// over, and the database's mark of having one removed, if there is space for that.
constexpr char kLeaveLogSql[] =
    "PRAGMA locking_mode = EXCLUSIVE; SELECT COUNT(*) FROM sqlite_master; PRAGMA journal_mode = "
    "DELETE;";
// Lets others in.
constexpr char kShareSql[] = "PRAGMA locking_mode = NORMAL; SELECT COUNT(*) FROM sqlite_master;";
constexpr char kLogSuffix[] = "-wal";
constexpr char kIndexSuffix[] = "-shm";

// SQLite begins by itself, again where it found no memory. Its encryption then counts on from where
// it had come to, and takes its own databases for damaged; ending SQLite resets the count.
bool BeginSQLite() {
  static Mutex& lock = *new Mutex;
  static bool hasBegun = false;
  static bool isCountedOn = false;
  MutexLock hold(lock);
  if (hasBegun) return true;
  hasBegun = sqlite3_initialize() == SQLITE_OK;
  if (hasBegun && isCountedOn) {
    (void)sqlite3_shutdown();
    hasBegun = sqlite3_initialize() == SQLITE_OK;
  }
  isCountedOn = !hasBegun;
  return hasBegun;
}

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

std::string DirectoryOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

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
  (void)Run(db, "PRAGMA temp_store_directory = '" + Quoted(DirectoryOf(path)) + "';");  // a wish
}

// The first column of the only row; "" on failure.
std::string ReadText(sqlite3* db, const char* sql) {
  sqlite3_stmt* handle = nullptr;
  (void)sqlite3_prepare_v2(db, sql, -1, &handle, nullptr);
  const StatementHandle statement(handle);
  if (sqlite3_step(handle) != SQLITE_ROW) return {};
  const unsigned char* const text = sqlite3_column_text(handle, 0);
  return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

// As SQLite takes a name for a file that does not change.
std::string FixedName(const std::string& path) {
  std::string name = "file:";
  for (const char c : path) {
    char escaped[4] = {c};
    if (c == '%' || c == '?' || c == '#') {
      (void)std::snprintf(escaped, sizeof(escaped), "%%%02X", static_cast<unsigned int>(c));
    }
    name += escaped;
  }
  return name + "?immutable=1";
}

bool TakesFiles(const std::string& directory) {
  sqlite3_vfs* const system = sqlite3_vfs_find(nullptr);
  int takes = 1;
  const int result = system->xAccess(system, directory.c_str(), SQLITE_ACCESS_READWRITE, &takes);
  return result != SQLITE_OK || takes != 0;
}

bool Exists(const std::string& path) {
  PRAX_STAT status;
  return PRAX_Stat(path.c_str(), &status) == 0;
}

// SQLite had the database, but not what it needs beside it.
bool LacksSideFile(int result) {
  return result == SQLITE_READONLY || result == SQLITE_IOERR || result == SQLITE_FULL ||
         result == SQLITE_CANTOPEN;
}

// Of page 1, or of another one.
bool IsUndecipherable(int result) { return result == SQLITE_NOTADB || result == SQLITE_CORRUPT; }

// A locked file is taken as readable.
bool IsPassed(int result) {
  return result == SQLITE_OK || result == SQLITE_BUSY || result == SQLITE_LOCKED;
}

// Damage has these two results; whatever else the system answers (no memory, space, descriptors, no
// lock granted, no turn at the log) tells nothing about the file.
bool IsFaultOfMachine(int result) { return !IsUndecipherable(result & 0xff); }

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
  const int result = OpenFile(path, &db);
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
  found->second.idle->Close();
  // Deferred by SQLite until the last statement of the connection is gone. Takes the log over and
  // removes it.
  const int result = sqlite3_close_v2(found->second.db);
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
  m_isKeyed = result == SQLITE_OK || result == SQLITE_MISUSE;  // an unusable handle takes nothing
  ZEL_LOG_MILESTONE(kInfo) << "[" << dbName << "] sqlite3_key() = " << result;
  if (result != SQLITE_OK) {
    ZEL_LOG_MILESTONE(kError) << "[" << dbName << "] sqlite3_key() = " << result;
  }
}

bool SQLiteDB::IsCanOpen() {
  SetReadAndWriteAttribute(dbPath);
  ZEL_LOG_MILESTONE(kInfo) << "[" << dbName << "] test open";
  sqlite3* probe = nullptr;
  const int result = OpenFile(dbPath, &probe);
  ZEL_LOG_MILESTONE(kInfo) << "Open the db, and the result is " << result;
  if (result != SQLITE_OK || probe == nullptr) {
    const int closeResult = sqlite3_close(probe);  // null is fine
    ZEL_LOG_MILESTONE(kWarning) << "Close the db, and the result is nRet: " << result
                                << ", closeRet: " << closeResult;
    ZEL_LOG_MILESTONE(kInfo) << "Fail to open the db";
    m_probeVoid.store(IsFaultOfMachine(result));
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
  int result = ApplyKey(probe, key);  // succeeds for a wrong key too; the statement tells
  if (result == SQLITE_OK) result = Run(probe, kProbeSql);
  if (Mend(probe, result)) result = Run(probe, kProbeSql);
  if (!IsPassed(result)) {
    const int closeResult = sqlite3_close(probe);
    ZEL_LOG_MILESTONE(kWarning) << "Close the db, and the result is " << result
                                << ", closeRet: " << closeResult;
    m_probeVoid.store(IsFaultOfMachine(result));
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
    m_probeVoid.store(IsFaultOfMachine(result));
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
    if (!m_isKeyed) return CloseUnkeyed();
  }
  if (TestOpen()) {
    ZEL_LOG_MILESTONE(kInfo) << "db file is not corrupted.";
    if (StartWriteAhead(fresh)) return fresh;
  }

  Close();
  sqlite3* const second = AddConnection();
  if (second == nullptr) {
    ZEL_LOG(kWarning) << "db file damaged : cant not open...";
    return nullptr;
  }
  if (!key.empty()) Key(key);
  if (!key.empty() && !m_isKeyed) return CloseUnkeyed();
  // Otherwise, as on a full disk, it stays alone and can at least be read.
  if (Run(second, kLeaveLogSql) == SQLITE_OK) (void)Run(second, kShareSql);
  return second;
}

// A connection without its key would make a database that is not encrypted. Null.
sqlite3* SQLiteDB::CloseUnkeyed() {
  Close();
  return nullptr;
}

sqlite3* SQLiteDB::AddConnection() {
  sqlite3* const db = Open(dbPath);
  if (db == nullptr) return nullptr;
  m_connections[PublicUtil::GetCurrentThreadId()] = {db, std::make_shared<IdleStatements>()};
  return db;
}

// Behind the key, for it reads the file.
bool SQLiteDB::StartWriteAhead(sqlite3* db) const {
  if (!IsUsable(db) || sqlite3_db_readonly(db, "main") == 1) return true;
  // A power cut can take nothing from a new database; four syncs less for a first start.
  if (ReadText(db, kPagesSql) == "0") (void)Run(db, kUnsyncedSql);
  const bool hasLog = ReadText(db, kWriteAheadSql) == "wal";
  (void)Run(db, kSyncedSql);
  const int result = Run(db, kTrySql);
  if (hasLog && !LacksSideFile(result)) {
    (void)Run(db, kTuneSql);  // only a wish
    return true;
  }
  ZEL_LOG(kWarning) << "[" << dbName << "] no write-ahead log, every write is synced";
  return !LacksSideFile(result);
}

// A database with a log cannot even be read where its side files cannot be made; without them it
// is taken as it lies there, read-only.
int SQLiteDB::OpenFile(const std::string& path, sqlite3** db) const {
  if (!BeginSQLite()) return SQLITE_NOMEM;
  if (!Exists(path) || TakesFiles(DirectoryOf(path)) || IsReadable(kOpenFlags, path)) {
    return sqlite3_open_v2(path.c_str(), db, kOpenFlags, nullptr);
  }
  ZEL_LOG(kWarning) << "[" << dbName << "] the directory takes no file, read-only";
  return sqlite3_open_v2(FixedName(path).c_str(), db, kFixedFlags, nullptr);
}

sqlite3* SQLiteDB::OpenAside(int flags, const std::string& name, const char* arrange) const {
  sqlite3* db = nullptr;
  (void)sqlite3_open_v2(name.c_str(), &db, flags, nullptr);  // what runs on the handle tells
  if (!key.empty()) (void)ApplyKey(db, key);
  (void)Run(db, arrange);
  return db;
}

bool SQLiteDB::IsReadable(int flags, const std::string& name) const {
  sqlite3* const db = OpenAside(flags, name, "");
  const bool isReadable = Run(db, kReadSql) == SQLITE_OK;
  (void)sqlite3_close(db);
  return isReadable;
}

// A log that another database has left, or another key has written, hides a database that is sound.
void SQLiteDB::DiscardForeignLog() const {
  if (!Exists(dbPath + kLogSuffix) || !IsReadable(kFixedFlags, FixedName(dbPath))) return;
  ZEL_LOG(kWarning) << "[" << dbName << "] removes a log that is not of this database";
  (void)PRAX_Remove((dbPath + kLogSuffix).c_str());  // the next try tells
  (void)PRAX_Remove((dbPath + kIndexSuffix).c_str());
}

// Puts another handle in place of `probe` when something beside the database made `result` of it.
bool SQLiteDB::Mend(sqlite3*& probe, int result) const {
  if (IsPassed(result)) {  // reads all of the log, as closing would
    result = sqlite3_wal_checkpoint_v2(probe, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  }
  if (!LacksSideFile(result) && !IsUndecipherable(result)) return false;
  (void)sqlite3_close(probe);
  if (!LacksSideFile(result)) DiscardForeignLog();
  probe = OpenAside(kOpenFlags, dbPath, LacksSideFile(result) ? kLeaveLogSql : "");
  return true;
}

SQLiteDB::Connection* SQLiteDB::FindConnection() {
  const auto found = m_connections.find(PublicUtil::GetCurrentThreadId());
  return found == m_connections.end() ? nullptr : &found->second;
}

sqlite3* SQLiteDB::GetConn() {
  RecursiveMutexLock lock(m_connectionLock);
  const Connection* const found = FindConnection();
  return found == nullptr ? nullptr : found->db;
}

sqlite3* SQLiteDB::GetDBHandle() { return GetConn(); }

void SQLiteDB::Exec(const std::string& sql) {
  RecursiveMutexLock lock(m_connectionLock);
  sqlite3* const db = GetDBConnection();
  m_hasExecuted = false;
  if (db == nullptr) {
    ZEL_LOG(kInfo) << "no conn";
    return;
  }
  const int result = Run(db, sql);
  m_hasExecuted = result == SQLITE_OK;
  if (m_hasExecuted) return;
  ZEL_LOG(kInfo) << "[" << dbName << "] sqlite3_exec(" << sql << ")";
  ZEL_LOG(kError) << "[" << dbName << "] sqlite exception(" << result << "): " << sql;
}

// Null on failure, which is logged.
sqlite3_stmt* SQLiteDB::Prepare(sqlite3* db, const std::string& sql) const {
  sqlite3_stmt* handle = nullptr;
  const int result =
      db == nullptr ? SQLITE_MISUSE : sqlite3_prepare_v2(db, sql.c_str(), -1, &handle, nullptr);
  if (result == SQLITE_OK) return handle;
  ZEL_LOG(kInfo) << "[" << dbName << "] sqlite3_prepare_v2(" << sql << ")";
  ZEL_LOG(kError) << "[" << dbName << "] sqlite exception(" << result << "): " << sql;
  return nullptr;
}

IDataManipulation* SQLiteDB::CreateDataManipulation(const std::string& sql) {
  RecursiveMutexLock lock(m_connectionLock);
  sqlite3* const db = GetDBConnection();
  std::shared_ptr<IdleStatements> idle;
  if (db != nullptr) idle = FindConnection()->idle;
  StatementHandle handle = db == nullptr ? nullptr : idle->Take(sql);
  if (handle == nullptr) handle.reset(Prepare(db, sql));
  auto* const statement = new (std::nothrow) SQLiteStmt(handle.get(), dbName, sql, std::move(idle));
  if (statement != nullptr) (void)handle.release();  // its owner is the statement now
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

bool SQLiteDB::HasExecuted() {
  RecursiveMutexLock lock(m_connectionLock);
  return m_hasExecuted;
}

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
  const bool hasBegun = !storage->GetAutoCommit();  // else each statement has committed itself
  storage->Commit();
  auto* const sqlite = dynamic_cast<SQLiteDB*>(storage);
  m_isLost = hasBegun && sqlite != nullptr && !sqlite->HasExecuted();
  committed = !m_isLost || storage->GetAutoCommit();  // SQLite may have rolled back
}

}  // namespace commonutil
