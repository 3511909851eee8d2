#include <utility>

#include <sqlite3.h>

#include "cacheDB/IdleStatements.h"
#include "cacheDB/SQLiteConnectionLock.h"
#include "cacheDB/SQLiteWrapper.h"
#include "util/Log.h"
#include "util/PublicUtil.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/SQLiteWrapper";

constexpr int kNoDatabase = -1;

}  // namespace

SQLiteStmt::SQLiteStmt(sqlite3_stmt* handle, const std::string& name, const std::string& text,
                       std::shared_ptr<IdleStatements> idleStatements)
    : m_statement(handle), dbName(name), sql(text), m_idle(std::move(idleStatements)) {}

SQLiteStmt::~SQLiteStmt() {
  if (m_statement == nullptr) return;
  StatementHandle statement(m_statement);
  const int result = sqlite3_reset(m_statement);  // the last run's
  m_statement = nullptr;
  try {
    if (result == SQLITE_OK) {
      m_idle->Give(sql, std::move(statement));
      return;
    }
    ZEL_LOG(kError) << " rescode : " << result;
    LogFailure(result);
    PublicUtil::SetDBCorruptFlag(dbName);
  } catch (...) {  // the statement is gone all the same
  }
}

void SQLiteStmt::LogFailure(int result) const {
  ZEL_LOG(kError) << "[" << dbName << "] sqlite exception(" << result << "): " << sql;
}

// Passes `result` on; logs it first when SQLite did not succeed.
int SQLiteStmt::Checked(int result) const {
  if (result != SQLITE_OK) LogFailure(result);
  return result;
}

int SQLiteStmt::Bind(int index, int value) {
  return Checked(sqlite3_bind_int(m_statement, index, value));
}

int SQLiteStmt::Bind(int index, double value) {
  return Checked(sqlite3_bind_double(m_statement, index, value));
}

int SQLiteStmt::Bind(int index, long long value) {
  return Checked(sqlite3_bind_int64(m_statement, index, value));
}

int SQLiteStmt::Bind(int index, const std::string& value) {
  const int result = sqlite3_bind_text(m_statement, index, value.c_str(), -1, SQLITE_TRANSIENT);
  m_lacksText = m_lacksText || result == SQLITE_NOMEM;
  return Checked(result);
}

int SQLiteStmt::BindNull(int index) { return Checked(sqlite3_bind_null(m_statement, index)); }

int SQLiteStmt::Exec(bool reset) {
  sqlite3* const db = GetDBHandle();
  if (db == nullptr) {
    LogFailure(sqlite3_step(m_statement));  // refused, for want of a statement
    return kNoDatabase;
  }
  if (m_lacksText) {  // would store an empty one
    LogFailure(SQLITE_NOMEM);
    if (reset) m_lacksText = false;  // the next record binds texts of its own
    return 0;
  }
  int result = SQLITE_OK;
  int changes = 0;
  {
    SQLiteConnectionLock lock(db);  // nobody else changes rows between step and question
    result = sqlite3_step(m_statement);
    changes = sqlite3_changes(db);
  }
  if (result == SQLITE_CONSTRAINT) {
    if (reset) (void)sqlite3_reset(m_statement);  // repeats the violation just passed over
    return changes;
  }
  if (result != SQLITE_DONE) LogFailure(result);
  if (reset) (void)Reset();  // has logged what it returns
  return changes;
}

int SQLiteStmt::Reset() { return Checked(sqlite3_reset(m_statement)); }

bool SQLiteStmt::NextRow() {
  const int result = sqlite3_step(m_statement);
  if (result != SQLITE_ROW && result != SQLITE_DONE) LogFailure(result);
  return result == SQLITE_ROW;
}

void SQLiteStmt::GetValue(int column, int& value) {
  value = sqlite3_column_int(m_statement, column);
}

void SQLiteStmt::GetValue(int column, long long& value) {
  value = sqlite3_column_int64(m_statement, column);
}

void SQLiteStmt::GetValue(int column, std::string& value) {
  const unsigned char* const text = sqlite3_column_text(m_statement, column);
  if (text != nullptr) value = reinterpret_cast<const char*>(text);
}

std::string SQLiteStmt::GetDBName() const { return dbName; }

sqlite3* SQLiteStmt::GetDBHandle() const { return sqlite3_db_handle(m_statement); }

}  // namespace commonutil
