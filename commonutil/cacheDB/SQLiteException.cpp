#include "cacheDB/SQLiteWrapper.h"

namespace commonutil {
namespace {

struct CodeName {
  int code;
  const char* name;
};

constexpr CodeName kCodeNames[] = {
    {1, "SQLITE_ERROR"},
    {2, "SQLITE_INTERNAL"},
    {3, "SQLITE_PERM"},
    {4, "SQLITE_ABORT"},
    {5, "SQLITE_BUSY"},
    {6, "SQLITE_LOCKED"},
    {7, "SQLITE_NOMEM"},
    {8, "SQLITE_READONLY"},
    {9, "SQLITE_INTERRUPT"},
    {10, "SQLITE_IOERR"},
    {11, "SQLITE_CORRUPT"},
    {12, "SQLITE_NOTFOUND"},
    {13, "SQLITE_FULL"},
    {14, "SQLITE_CANTOPEN"},
    {15, "SQLITE_PROTOCOL"},
    {16, "SQLITE_EMPTY"},
    {17, "SQLITE_SCHEMA"},
    {18, "SQLITE_TOOBIG"},
    {19, "SQLITE_CONSTRAINT"},
    {20, "SQLITE_MISMATCH"},
    {21, "SQLITE_MISUSE"},
    {22, "SQLITE_NOLFS"},
    {23, "SQLITE_AUTH"},
    {24, "SQLITE_FORMAT"},
    {25, "SQLITE_RANGE"},
    {26, "SQLITE_NOTADB"},
    {100, "SQLITE_ROW"},
    {101, "SQLITE_DONE"},
    {266, "SQLITE_IOERR_READ"},
    {522, "SQLITE_IOERR_SHORT_READ"},
    {778, "SQLITE_IOERR_WRITE"},
    {1034, "SQLITE_IOERR_FSYNC"},
    {1290, "SQLITE_IOERR_DIR_FSYNC"},
    {1546, "SQLITE_IOERR_TRUNCATE"},
    {1802, "SQLITE_IOERR_FSTAT"},
    {2058, "SQLITE_IOERR_UNLOCK"},
    {2314, "SQLITE_IOERR_RDLOCK"},
    {2570, "SQLITE_IOERR_DELETE"},
    {2826, "SQLITE_IOERR_BLOCKED"},
    {3082, "SQLITE_IOERR_NOMEM"},
};

const char* NameOf(int code) {
  for (const CodeName& entry : kCodeNames) {
    if (entry.code == code) return entry.name;
  }
  return "";
}

}  // namespace

SQLiteException::SQLiteException(int code) : m_code(code) {}

const char* SQLiteException::what() const noexcept { return NameOf(m_code); }

std::string SQLiteException::GetErrorMsgFromErrorCode(int code) { return NameOf(code); }

}  // namespace commonutil
