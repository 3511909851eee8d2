// For the SQLite wrapper's own sources: this header brings sqlite3.h with it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "util/Mutex.h"

namespace commonutil {

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { (void)sqlite3_finalize(statement); }
};
using StatementHandle = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// The prepared statements of a connection that are not in use, so that the next one of the same
// text need not be prepared. They are reset, and nothing is bound to them. SQLite itself prepares
// one anew whose schema has changed. Any thread.
class IdleStatements {
 public:
  // Null when there is none of that text.
  StatementHandle Take(const std::string& sql);
  // `statement` is reset. The one that lies here longest makes room.
  void Give(const std::string& sql, StatementHandle statement);
  // Finalises all, and what is given later too: SQLite closes a connection with its last statement.
  void Close();

 private:
  struct Idle {
    std::string sql;
    StatementHandle statement;
  };

  bool m_closed ZEL_GUARDED_BY(m_lock) = false;
  std::vector<Idle> m_idle ZEL_GUARDED_BY(m_lock);
  // A leaf. SQLite is not called under it, for SQLite waits for running statements.
  Mutex m_lock;
};

}  // namespace commonutil
