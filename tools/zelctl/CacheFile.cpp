#include "CacheFile.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>
#include <utility>

#include <sqlite3.h>

#include "Signals.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr char kPlainHeader[] = "SQLite format 3";
constexpr char kProbeSql[] = "SELECT count(*) FROM sqlite_master";
constexpr char kTakeWhatThereIsSql[] = "PRAGMA writable_schema = ON";
constexpr char kTakeLogOverSql[] = "PRAGMA wal_checkpoint";
constexpr char kLogSuffix[] = "-wal";
constexpr char kIndexSuffix[] = "-shm";
constexpr char kAsideSuffix[] = "-aside";
constexpr char kCheckSql[] = "PRAGMA integrity_check";
constexpr char kColumnsSql[] = "SELECT AUTOID, KEY, VALUE FROM ConfigCacheTab LIMIT 0";
constexpr char kRowsSql[] = "SELECT AUTOID, KEY, VALUE FROM ConfigCacheTab NOT INDEXED ";
// As the library makes them.
constexpr char kCreateSql[] =
    "CREATE TABLE IF NOT EXISTS ConfigCacheTab( AUTOID  INTEGER PRIMARY KEY AUTOINCREMENT, KEY    "
    "VARCHAR(256) NOT NULL, VALUE  VARCHAR(512));"
    "CREATE UNIQUE INDEX IF NOT EXISTS CONFIGCACHE_UNIQUE_INDEX ON ConfigCacheTab(KEY);";
constexpr char kInsertSql[] = "INSERT OR REPLACE INTO ConfigCacheTab VALUES(?, ?, ?)";
constexpr char kTable[] = "ConfigCacheTab";
constexpr char kIndex[] = "CONFIGCACHE_UNIQUE_INDEX";
constexpr char kPageWord[] = "page ";
constexpr char kUnreadablePage[] = "unable to get the page";
constexpr char kDigits[] = "0123456789";
constexpr std::size_t kLongestNumber = 10;
constexpr std::int64_t kWidestGap = 1000000;  // some seconds
constexpr int kStepsBetweenLooks = 10000;     // some milliseconds
constexpr char kAscending[] = "ORDER BY AUTOID";
constexpr char kDescending[] = "ORDER BY AUTOID DESC";

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { (void)sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

// Null when it cannot be prepared.
Statement Prepare(sqlite3* database, const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  (void)sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr);
  return Statement(statement);
}

bool Run(sqlite3* database, const char* sql) {
  return sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::string Column(sqlite3_stmt* statement, int column) {
  const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return text == nullptr ? "" : std::string(text, sqlite3_column_bytes(statement, column));
}

bool HasPlainHeader(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  char start[sizeof(kPlainHeader)] = "";
  return file.read(start, sizeof(start)) && std::equal(start, std::end(start), kPlainHeader);
}

void SetKey(sqlite3* database, const std::string& key) {
  (void)sqlite3_key(database, key.data(), static_cast<int>(key.size()));  // the first read tells
}

// While it lives, an interrupt ends what SQLite does with the database.
class Interruptible {
 public:
  explicit Interruptible(sqlite3* database) : m_database(database) {
    sqlite3_progress_handler(
        database, kStepsBetweenLooks, [](void*) -> int { return Signals().interrupted ? 1 : 0; },
        nullptr);
  }
  ~Interruptible() { sqlite3_progress_handler(m_database, 0, nullptr, nullptr); }
  Interruptible(const Interruptible&) = delete;
  Interruptible& operator=(const Interruptible&) = delete;

 private:
  sqlite3* const m_database;
};

// The numbers behind the word "page" in SQLite's words.
void CollectPages(const std::string& remark, std::set<unsigned int>* pages) {
  for (std::size_t at = 0; (at = remark.find(kPageWord, at)) != std::string::npos;) {
    at += sizeof(kPageWord) - 1;
    const std::size_t end = std::min(remark.find_first_not_of(kDigits, at), remark.size());
    if (end > at && end - at < kLongestNumber) {
      pages->insert(static_cast<unsigned int>(std::stoul(remark.substr(at, end - at))));
    }
  }
}

// Behind a page that cannot be read SQLite takes every other page for unreadable too.
void DropConsequences(std::vector<std::string>* remarks) {
  const auto unreadable = std::find_if(
      remarks->begin(), remarks->end(),
      [](const std::string& remark) { return remark.find(kUnreadablePage) != std::string::npos; });
  if (unreadable != remarks->end()) remarks->erase(unreadable + 1, remarks->end());
}

void AddLines(const std::string& text, std::vector<std::string>* lines) {
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines->push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
}

bool Insert(sqlite3_stmt* statement, const CacheRow& row) {
  return sqlite3_bind_int64(statement, 1, row.id) == SQLITE_OK &&
         sqlite3_bind_text(statement, 2, row.key.data(), static_cast<int>(row.key.size()),
                           SQLITE_STATIC) == SQLITE_OK &&
         sqlite3_bind_text(statement, 3, row.value.data(), static_cast<int>(row.value.size()),
                           SQLITE_STATIC) == SQLITE_OK &&
         sqlite3_step(statement) == SQLITE_DONE && sqlite3_reset(statement) == SQLITE_OK;
}

bool InsertAll(sqlite3* database, const std::vector<CacheRow>& rows) {
  const Statement statement = Prepare(database, kInsertSql);
  return statement && std::all_of(rows.begin(), rows.end(), [&](const CacheRow& row) {
           return Insert(statement.get(), row);
         });
}

}  // namespace

CacheFile::CacheFile(const std::string& path, const std::string& key) : m_state(Open(path, key)) {}

CacheFile::~CacheFile() { (void)sqlite3_close(m_database); }

CacheFile::State CacheFile::Open(const std::string& path, const std::string& key) {
  std::error_code error;
  if (!fs::exists(path, error)) return State::kMissing;
  if (!fs::is_regular_file(path, error)) return State::kFailed;
  if (fs::file_size(path, error) == 0) return State::kEmpty;
  const bool isPlain = HasPlainHeader(path);
  if (sqlite3_open_v2(path.c_str(), &m_database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK) {
    return State::kFailed;
  }
  if (!isPlain) SetKey(m_database, key);
  if (fs::exists(path + kLogSuffix, error) && !CanReadLog()) return WithoutLog(path, key);
  if (!Run(m_database, kProbeSql)) {
    // SQLite refuses a file that lacks pages unless it is told to take what there is.
    m_isCutOff = Run(m_database, kTakeWhatThereIsSql) && Run(m_database, kProbeSql);
    if (!m_isCutOff) return State::kUnreadable;
  }
  return isPlain ? State::kUnencrypted : State::kOpen;
}

// Reads all of the log. Only what does not decrypt counts: a full disk is no fault of the log.
bool CacheFile::CanReadLog() {
  if (Run(m_database, kProbeSql) && Run(m_database, kTakeLogOverSql)) return true;
  const int error = sqlite3_errcode(m_database);
  return error != SQLITE_NOTADB && error != SQLITE_CORRUPT;
}

// With a wrong key the log is as unreadable as the database: it is needed once the right one comes.
CacheFile::State CacheFile::WithoutLog(const std::string& path, const std::string& key) {
  (void)sqlite3_close(std::exchange(m_database, nullptr));
  std::error_code error;
  fs::rename(path + kLogSuffix, path + kAsideSuffix, error);
  fs::remove(path + kIndexSuffix, error);
  const State state = Open(path, key);
  m_hasForeignLog = CanRead(state);
  if (m_hasForeignLog) return state;
  (void)sqlite3_close(std::exchange(m_database, nullptr));
  fs::rename(path + kAsideSuffix, path + kLogSuffix, error);
  return state;
}

CacheCheck CacheFile::Check() {
  CacheCheck check;
  const Interruptible scope(m_database);
  const Statement statement = Prepare(m_database, kCheckSql);
  int result = SQLITE_ERROR;
  while (statement && (result = sqlite3_step(statement.get())) == SQLITE_ROW) {
    AddLines(Column(statement.get(), 0), &check.remarks);
  }
  ThrowIfInterrupted();  // what was cut short tells nothing of the database
  if (result == SQLITE_DONE && check.remarks == std::vector<std::string>{"ok"}) return {};
  if (result != SQLITE_DONE) check.remarks.emplace_back(sqlite3_errmsg(m_database));
  DropConsequences(&check.remarks);
  std::set<unsigned int> pages;
  for (const std::string& remark : check.remarks) CollectPages(remark, &pages);
  check.damagedPages.assign(pages.begin(), pages.end());
  return check;
}

bool CacheFile::Holds(const char* type, const char* name) {
  const Statement statement =
      Prepare(m_database, "SELECT 1 FROM sqlite_master WHERE type = ? AND name = ?");
  return statement && sqlite3_bind_text(statement.get(), 1, type, -1, SQLITE_STATIC) == SQLITE_OK &&
         sqlite3_bind_text(statement.get(), 2, name, -1, SQLITE_STATIC) == SQLITE_OK &&
         sqlite3_step(statement.get()) == SQLITE_ROW;
}

bool CacheFile::HasTable() { return Holds("table", kTable); }

bool CacheFile::HasColumns() { return Prepare(m_database, kColumnsSql) != nullptr; }

bool CacheFile::HasIndex() { return Holds("index", kIndex); }

// False when a page stops it.
bool CacheFile::ReadRows(const std::string& condition, std::vector<CacheRow>* rows) {
  const Interruptible scope(m_database);
  const Statement statement = Prepare(m_database, kRowsSql + condition);
  int result = SQLITE_ERROR;
  while (statement && (result = sqlite3_step(statement.get())) == SQLITE_ROW) {
    rows->push_back({sqlite3_column_int64(statement.get(), 0), Column(statement.get(), 1),
                     Column(statement.get(), 2)});
  }
  ThrowIfInterrupted();
  return result == SQLITE_DONE;
}

std::vector<CacheRow> CacheFile::Rows(bool* isComplete) {
  std::vector<CacheRow> rows;
  *isComplete = ReadRows(kAscending, &rows);
  if (*isComplete) return rows;
  std::vector<CacheRow> fromTheEnd;
  (void)ReadRows(kDescending, &fromTheEnd);  // stops too
  const std::int64_t last = rows.empty() ? 0 : rows.back().id;
  const std::int64_t end = fromTheEnd.empty() ? last : fromTheEnd.back().id;
  for (std::int64_t id = last + 1; id < end && id - last <= kWidestGap; ++id) {
    (void)ReadRows("WHERE AUTOID = " + std::to_string(id), &rows);
  }
  for (auto row = fromTheEnd.rbegin(); row != fromTheEnd.rend(); ++row) {
    if (row->id > last) rows.push_back(std::move(*row));
  }
  return rows;
}

std::uint32_t CacheFile::PageSize() {
  const Statement statement = Prepare(m_database, "PRAGMA page_size");
  if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return 0;
  return static_cast<std::uint32_t>(sqlite3_column_int(statement.get(), 0));
}

bool CacheFile::Write(const std::string& path, const std::string& key,
                      const std::vector<CacheRow>& rows) {
  sqlite3* database = nullptr;
  const bool opened =
      sqlite3_open_v2(path.c_str(), &database,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) == SQLITE_OK;
  if (opened) SetKey(database, key);
  const bool written = opened && Run(database, kCreateSql) && Run(database, "BEGIN") &&
                       InsertAll(database, rows) && Run(database, "COMMIT");
  return sqlite3_close(database) == SQLITE_OK && written;
}

}  // namespace zelctl
