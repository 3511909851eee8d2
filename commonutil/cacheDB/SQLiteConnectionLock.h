// For the SQLite wrapper's own sources: this header brings sqlite3.h with it.
#pragma once

#include <sqlite3.h>

namespace commonutil {

// Holds SQLite's own, recursive lock of a connection. The counters of a connection (rows
// changed, last row id, transaction state) are read under it: the connection is shared, and
// SQLite does not lock for them.
class SQLiteConnectionLock {
 public:
  explicit SQLiteConnectionLock(sqlite3* db) : m_mutex(sqlite3_db_mutex(db)) {
    sqlite3_mutex_enter(m_mutex);
  }
  ~SQLiteConnectionLock() { sqlite3_mutex_leave(m_mutex); }
  SQLiteConnectionLock(const SQLiteConnectionLock&) = delete;
  SQLiteConnectionLock& operator=(const SQLiteConnectionLock&) = delete;

 private:
  sqlite3_mutex* m_mutex;
};

}  // namespace commonutil
