// The encrypted SQLite file behind two interfaces: a storage (one database file) and a
// statement. The layers above know the interfaces only, and this family of sources is the
// only one that sees sqlite3.h.
//
// Nothing here throws to its caller: SQLite's failures are logged and handed back as the
// operation says. Any thread may call any operation.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <string>

#include "util/Mutex.h"

struct sqlite3;
struct sqlite3_stmt;

namespace commonutil {

// One prepared statement. Columns count from 0, parameters from 1.
class IDataManipulation {
 public:
  virtual ~IDataManipulation() = default;
  // Return SQLite's result. Texts are copied up to their first NUL.
  virtual int Bind(int index, int value) = 0;
  virtual int Bind(int index, double value) = 0;
  virtual int Bind(int index, long long value) = 0;
  virtual int Bind(int index, const std::string& value) = 0;
  // Runs a statement that yields no rows and returns the number of rows changed, or -1
  // without a statement. `reset` makes it ready for the next run; bindings stay.
  virtual int Exec(bool reset) = 0;
  virtual int Reset() = 0;
  // True when there is a row to read.
  virtual bool NextRow() = 0;
  virtual void GetValue(int column, int& value) = 0;
  virtual void GetValue(int column, long long& value) = 0;
  // NULL leaves `value` as it was.
  virtual void GetValue(int column, std::string& value) = 0;
  virtual std::string GetDBName() const = 0;
};

// One database. Where "connection" is said, it is the calling thread's one.
class IDataStorage {
 public:
  virtual ~IDataStorage() = default;
  virtual bool IsOpen() = 0;
  // A new connection that the storage does not remember: the caller closes it. Null when
  // the thread holds one already. May be a handle that SQLite could not open; every
  // operation on it fails.
  virtual sqlite3* Open(const std::string& path) = 0;
  virtual void Close() = 0;
  virtual bool TestOpen() = 0;
  // Whether the file opens and decrypts with the key; uses a connection of its own.
  virtual bool IsCanOpen() = 0;
  virtual void Key(const std::string& key) = 0;
  virtual std::int64_t GetLastInsertRowId() = 0;
  virtual std::string GetDBName() const = 0;
  virtual std::string GetDBPath() const = 0;
  // A failure is logged and not reported.
  virtual void Exec(const std::string& sql) = 0;
  // The caller deletes the result. Null only without memory: a statement that could not be
  // prepared is an object whose operations fail.
  virtual IDataManipulation* CreateDataManipulation(const std::string& sql) = 0;
  virtual bool GetAutoCommit() = 0;
  virtual void BeginTransaction() = 0;
  virtual void Rollback() = 0;
  virtual void Commit() = 0;
};

class IdleStatements;

// What SQLite keeps beside a database, by what is added to its name. Left behind, they would be
// laid over whatever database gets the name next, so they go before it does.
inline constexpr const char* kSideFiles[] = {"-journal", "-wal", "-shm"};

// Writes go to a log beside the database, which is synced only when it is taken over: a killed
// process loses nothing, a machine that loses its power the last writes at most. Where no such log
// can be had, every write is synced.
class SQLiteDB : public IDataStorage {
 public:
  // Touches no file. An empty key means an unencrypted file.
  SQLiteDB(const std::string& name, const std::string& path, const std::string& databaseKey);
  // Closes the calling thread's connection.
  ~SQLiteDB() override;
  SQLiteDB(const SQLiteDB&) = delete;
  SQLiteDB& operator=(const SQLiteDB&) = delete;

  bool IsOpen() override;
  sqlite3* Open(const std::string& path) override;
  void Close() override;
  // Always true: a hook of the connection set-up. The real test is IsCanOpen.
  bool TestOpen() override;
  // A locked file counts as readable, and so does any openable file without a key.
  bool IsCanOpen() override;
  // Whether IsCanOpen failed last for want of something of the machine (memory, space, descriptors,
  // a turn at the log): it tells nothing about the file then.
  bool IsProbeVoid() const { return m_probeVoid.load(); }
  void Key(const std::string& databaseKey) override;
  std::int64_t GetLastInsertRowId() override;
  std::string GetDBName() const override;
  std::string GetDBPath() const override;
  void Exec(const std::string& sql) override;
  IDataManipulation* CreateDataManipulation(const std::string& sql) override;
  bool GetAutoCommit() override;
  void BeginTransaction() override;
  void Rollback() override;
  void Commit() override;
  // Whether the last Exec, of whatever thread, did what it was to.
  bool HasExecuted();

  // The connection, opened and keyed when there is none yet; null when it cannot be had.
  sqlite3* GetDBConnection();
  // The connection or null; never opens one.
  sqlite3* GetConn();
  sqlite3* GetDBHandle();
  // Owner reads and writes, group reads.
  void SetReadAndWriteAttribute(const std::string& path) const;

  // SQLite's compile-time threading mode.
  static int ThreadSafety();

 private:
  struct Connection {
    sqlite3* db;
    std::shared_ptr<IdleStatements> idle;  // shared with the statements in use
  };

  Connection* FindConnection() ZEL_REQUIRES(m_connectionLock);
  sqlite3* AddConnection() ZEL_REQUIRES(m_connectionLock);
  // Whether the connection is fit for use, with the log or without.
  bool StartWriteAhead(sqlite3* db) const;
  int OpenFile(const std::string& path, sqlite3** db) const;
  // A handle of its own, keyed; `arrange` runs before anything is read. The caller closes it.
  sqlite3* OpenAside(int flags, const std::string& name, const char* arrange) const;
  bool IsReadable(int flags, const std::string& name) const;
  void DiscardForeignLog() const;
  bool Mend(sqlite3*& probe, int result) const;
  sqlite3_stmt* Prepare(sqlite3* db, const std::string& sql) const;
  sqlite3* CloseUnkeyed() ZEL_REQUIRES(m_connectionLock);
  bool ProbeWithKey(sqlite3* probe);
  bool ConfirmProbe(sqlite3* probe, int result);

  const std::string dbName;
  const std::string dbPath;
  const std::string key;
  // By the result of PublicUtil::GetCurrentThreadId, which makes all threads share one.
  std::map<std::uint64_t, Connection> m_connections ZEL_GUARDED_BY(m_connectionLock);
  // Recursive because the set-up of a connection calls Open, Key and Close. Held while
  // SQLite runs and the outcome is logged, so that no thread closes the shared connection
  // under another one's call; taken before SQLite's own lock of the connection.
  RecursiveMutex m_connectionLock;
  bool m_isKeyed ZEL_GUARDED_BY(m_connectionLock) = false;
  bool m_hasExecuted ZEL_GUARDED_BY(m_connectionLock) = false;
  std::atomic<bool> m_probeVoid{false};  // written by IsCanOpen

  // Paths that passed the probe with their key in this process (value 1). The lock is held
  // while the probe is confirmed, closed and logged. Never destroyed.
  static RecursiveMutex& m_decLock;
  static std::map<std::string, int>& m_decryptMap ZEL_GUARDED_BY(m_decLock);
};

class SQLiteStmt : public IDataManipulation {
 public:
  // Owns `handle`, which is null when the preparation failed. It goes to `idleStatements` in the
  // end, unless its last run failed.
  SQLiteStmt(sqlite3_stmt* handle, const std::string& name, const std::string& text,
             std::shared_ptr<IdleStatements> idleStatements);
  ~SQLiteStmt() override;
  SQLiteStmt(const SQLiteStmt&) = delete;
  SQLiteStmt& operator=(const SQLiteStmt&) = delete;

  int Bind(int index, int value) override;
  int Bind(int index, double value) override;
  int Bind(int index, long long value) override;
  int Bind(int index, const std::string& value) override;
  // A violated constraint is no failure here: it is not logged and counts as no change.
  int Exec(bool reset) override;
  int Reset() override;
  bool NextRow() override;
  void GetValue(int column, int& value) override;
  void GetValue(int column, long long& value) override;
  void GetValue(int column, std::string& value) override;
  std::string GetDBName() const override;

  // Takes back what was bound: the parameter is NULL again.
  int BindNull(int index);
  // The connection that the statement belongs to, or null.
  sqlite3* GetDBHandle() const;

 private:
  int Checked(int result) const;
  void LogFailure(int result) const;

  sqlite3_stmt* m_statement;
  bool m_lacksText = false;  // a text that was to be bound found no memory
  const std::string dbName;
  const std::string sql;
  const std::shared_ptr<IdleStatements> m_idle;
};

// An exclusive transaction for a scope: rolled back at its end unless Commit was called.
// Inside an open transaction it does nothing, the outer one decides. The spelling is part
// of the interface.
class Transanction {
 public:
  // Does nothing at all unless `isEnabled`. The storage is borrowed.
  Transanction(IDataStorage* borrowed, bool isEnabled);
  ~Transanction();
  Transanction(const Transanction&) = delete;
  Transanction& operator=(const Transanction&) = delete;

  void Commit();
  // Whether the commit was refused, as on a full disk: nothing of it is in the database.
  bool IsLost() const { return m_isLost; }

 private:
  IDataStorage* storage;
  bool enabled;
  bool nested = false;
  bool committed = false;
  bool m_isLost = false;
};

class SQLiteException : public std::exception {
 public:
  explicit SQLiteException(int code);
  const char* what() const noexcept override;

  // The name of an SQLite result, empty for 0 and for unknown codes.
  static std::string GetErrorMsgFromErrorCode(int code);

 private:
  int m_code;
};

}  // namespace commonutil
