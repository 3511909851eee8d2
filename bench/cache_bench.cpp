// The caller's part of an add to the config cache.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <leveldb/db.h>
#include <leveldb/write_batch.h>
#include <sqlite3.h>

#include "PeerCache.h"
#include "PinnedWorker.h"
#include "Ratio.h"
#include "cache/cache_ref.h"
#include "cacheDB/DataStorage.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "util/MsgMgr.h"

namespace bench {

namespace {

using commonutil::CommonUtilPrivateManager;
using commonutil::ZelConfigCache;

constexpr int kRounds = 11;
constexpr int kAdds = 200;
constexpr std::size_t kKeys = 64;

const std::vector<std::string>& Keys() {
  static const std::vector<std::string>& keys = *[] {
    auto* const made = new std::vector<std::string>;
    for (std::size_t i = 0; i < kKeys; ++i) made->push_back("config/entry/" + std::to_string(i));
    return made;
  }();
  return keys;
}

// The usual nanoseconds of one `work`, as its caller meets them.
double UsualTime(const std::function<void()>& work) {
  using Clock = std::chrono::steady_clock;
  std::vector<double> times;
  for (int i = 0; i < kAdds; ++i) {
    const Clock::time_point start = Clock::now();
    work();
    times.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
  }
  std::nth_element(times.begin(), times.begin() + kAdds / 2, times.end());
  // The worker catches up between the rounds: how fast the disk takes entries is another figure.
  const std::function<int()> nothing = [] { return 0; };
  (void)commonutil::MsgMainThreadMgrHandler::GetInst().PushCmd(nothing, "bench");
  return times[kAdds / 2];
}

void BenchAdd(PeerCache& peer) {
  const ZelConfigCache row{0, Keys()[1], "a value of usual length, all of it kept in memory"};
  const auto add = [&] {
    if (CommonUtilPrivateManager::getInst().SingleAddConfigCache(row) != 0) std::abort();
  };
  CompareTimes(
      {"add one entry, the caller's part (2 us)", "the peer's store alone", 0, kRounds, 1},
      [&] { return UsualTime(add); },
      [&] { return UsualTime([&] { peer.Put(row.key, row.value); }); });
}

using Rows = std::vector<ZelConfigCache>;

constexpr int kSlowRounds = 7;
constexpr int kBatch = 1000;
constexpr int kGrowth[] = {1000, 10000, 100000};

// Rows that no other call has named.
Rows MakeRows(int count) {
  static int made = 0;
  Rows rows;
  for (int i = 0; i < count; ++i) {
    rows.push_back({0, "config/row/" + std::to_string(made++),
                    "a value of usual length, all of it kept on the disk"});
  }
  return rows;
}

void Check(bool succeeded) {
  if (!succeeded) std::abort();
}

// The same table in the same SQLite, with every statement prepared once.
class RawDatabase {
 public:
  explicit RawDatabase(const std::string& path) {
    constexpr char kKey[] = "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF";
    Check(sqlite3_open(path.c_str(), &m_db) == SQLITE_OK);
    Check(sqlite3_key(m_db, kKey, sizeof(kKey) - 1) == SQLITE_OK);
    Run("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;");
    Run("CREATE TABLE T(AUTOID INTEGER PRIMARY KEY AUTOINCREMENT, KEY VARCHAR(256) NOT NULL, "
        "VALUE VARCHAR(512)); CREATE UNIQUE INDEX I ON T(KEY);");
    Prepare("INSERT OR REPLACE INTO T(AUTOID, KEY, VALUE) VALUES(?, ?, ?);", &m_insert);
    Prepare("SELECT AUTOID, KEY, VALUE FROM T WHERE KEY = ?;", &m_select);
  }
  ~RawDatabase() {
    sqlite3_finalize(m_insert);
    sqlite3_finalize(m_select);
    sqlite3_close(m_db);
  }
  RawDatabase(const RawDatabase&) = delete;
  RawDatabase& operator=(const RawDatabase&) = delete;

  void Add(const ZelConfigCache& row) {
    Check(sqlite3_bind_text(m_insert, 2, row.key.c_str(), -1, SQLITE_TRANSIENT) == SQLITE_OK);
    Check(sqlite3_bind_text(m_insert, 3, row.value.c_str(), -1, SQLITE_TRANSIENT) == SQLITE_OK);
    Check(sqlite3_step(m_insert) == SQLITE_DONE && sqlite3_reset(m_insert) == SQLITE_OK);
  }
  void AddAll(const Rows& rows) {
    for (const ZelConfigCache& row : rows) Add(row);
  }
  void AddBatch(const Rows& rows) {
    Run("BEGIN EXCLUSIVE;");
    AddAll(rows);
    Run("COMMIT;");
  }
  std::string Get(const std::string& key) {
    Check(sqlite3_bind_text(m_select, 1, key.c_str(), -1, SQLITE_TRANSIENT) == SQLITE_OK);
    Check(sqlite3_step(m_select) == SQLITE_ROW);
    std::string value = reinterpret_cast<const char*>(sqlite3_column_text(m_select, 2));
    Check(sqlite3_reset(m_select) == SQLITE_OK);
    return value;
  }
  void Empty() { Run("DELETE FROM T;"); }

 private:
  void Run(const char* sql) {
    Check(sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK);
  }
  void Prepare(const char* sql, sqlite3_stmt** statement) {
    Check(sqlite3_prepare_v2(m_db, sql, -1, statement, nullptr) == SQLITE_OK);
  }

  sqlite3* m_db = nullptr;
  sqlite3_stmt* m_insert = nullptr;
  sqlite3_stmt* m_select = nullptr;
};

int RunOnWorker(const std::function<int()>& command) {
  return commonutil::MsgMainThreadMgrHandler::GetInst().PushCmd(command, "bench");
}

// Returns when the last row is in the database.
void AddAll(const Rows& rows) {
  for (const ZelConfigCache& row : rows) {
    Check(CommonUtilPrivateManager::getInst().SingleAddConfigCache(row) == 0);
  }
  (void)RunOnWorker([] { return 0; });
}

// The database's part, which is what the tracking library asks for.
void AddBatch(const Rows& rows) {
  Check(CallBackBatchAddConfigCache(rows.data(), static_cast<int>(rows.size())) == 0);
}

// The entries are kept in memory too.
void AddBatchAndKeep(const Rows& rows) {
  Check(CommonUtilPrivateManager::getInst().BatchAddConfigCache(
            rows.data(), static_cast<int>(rows.size())) == 0);
}

// Both databases without a row, the memory as well.
void Empty(RawDatabase& raw) {
  const commonutil::ZelMatchInfo all = {"", commonutil::kMatchAll};
  Check(RunOnWorker([&] {
          return commonutil::SqliteInterfaceManager::GetInst().DeleteConfigCache(all);
        }) == 0);
  raw.Empty();
  orb_cache_ref_reset();
}

double Nanoseconds(const Round& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

using Adding = std::function<void(const Rows& rows)>;

// Every round adds rows of its own, after `prepare`.
void CompareAdds(
    const Comparison& comparison, int rows, const Adding& ours, const Adding& peer,
    const Round& prepare = [] {}) {
  const auto round = [&](const Adding& add) {
    const Rows made = MakeRows(rows);
    prepare();
    return Nanoseconds([&] { add(made); });
  };
  CompareTimes(
      comparison, [&] { return round(ours); }, [&] { return round(peer); });
}

void BenchDatabaseQuery(RawDatabase& raw) {
  constexpr int kDatabaseQueries = 2000;
  const Rows rows = MakeRows(kBatch);
  AddBatch(rows);
  raw.AddBatch(rows);
  ZelConfigCache found;
  const auto ours = [&] {
    for (int i = 0; i < kDatabaseQueries; ++i) {
      int count = 1;
      const std::string& key = rows[static_cast<std::size_t>(i) * 7 % rows.size()].key;
      Check(CommonUtilPrivateManager::getInst().QueryConfigCacheByKey(key, &found, &count) == 0);
    }
  };
  const auto peer = [&] {
    for (int i = 0; i < kDatabaseQueries; ++i) {
      const std::string& key = rows[static_cast<std::size_t>(i) * 7 % rows.size()].key;
      (void)RunOnWorker([&] {
        found.value = raw.Get(key);
        return 0;
      });
    }
  };
  orb_cache_ref_reset();  // an answer of the database is not kept in memory
  const Pinned here(0);
  const PinnedWorker there(0);
  constexpr char kStatement[] = "the raw statement, prepared once, and one hand-over";
  {
    const QuietLog quiet;
    Compare({"query from the database", kStatement, 1.2, kRounds, kDatabaseQueries}, ours, peer);
  }
  Compare({"the same, and its log line kept", kStatement, 0, kRounds, kDatabaseQueries}, ours,
          peer);
}

void BenchDatabaseAdds(RawDatabase& raw, const std::string& dir) {
  constexpr int kSingles = 2000;
  const auto rawAll = [&](const Rows& rows) { raw.AddAll(rows); };
  const auto rawBatch = [&](const Rows& rows) { raw.AddBatch(rows); };
  CompareAdds({"add one by one, to the disk", "raw SQLite, WAL, synchronous NORMAL", 1.25,
               kSlowRounds, kSingles},
              kSingles, AddAll, rawAll);
  Empty(raw);  // so that what follows meets as many rows on either side
  const Rows rows = MakeRows(kSingles);
  const double seconds = Nanoseconds([&] { AddAll(rows); }) / 1e9;
  PrintFigure("add one by one, rows a second", kSingles / seconds);

  leveldb::Options options;
  options.create_if_missing = true;
  leveldb::DB* opened = nullptr;
  Check(leveldb::DB::Open(options, dir + "/leveldb", &opened).ok());
  const std::unique_ptr<leveldb::DB> level(opened);
  CompareAdds({"the same", "LevelDB, not synced, not encrypted", 0, kSlowRounds, kSingles},
              kSingles, AddAll, [&](const Rows& made) {
                for (const auto& row : made) Check(level->Put({}, row.key, row.value).ok());
              });
  CompareAdds(
      {"add a batch of 1000, one row of it", "raw SQLite, one transaction", 1.11, kRounds, kBatch},
      kBatch, AddBatch, rawBatch);
  Empty(raw);
  CompareAdds({"the same, and kept in memory", "the same", 0, kRounds, kBatch}, kBatch,
              AddBatchAndKeep, rawBatch);
  CompareAdds({"the same", "LevelDB, one write batch", 0, kRounds, kBatch}, kBatch, AddBatch,
              [&](const Rows& made) {
                leveldb::WriteBatch batch;
                for (const auto& row : made) batch.Put(row.key, row.value);
                Check(level->Write({}, &batch).ok());
              });
  for (const int count : kGrowth) {
    CompareAdds({"add " + std::to_string(count) + " rows to none, one row of it",
                 "raw SQLite, one transaction", 1.11, kSlowRounds, static_cast<double>(count)},
                count, AddBatch, rawBatch, [&] { Empty(raw); });
  }
}

}  // namespace

void BenchCache() {
  const std::string& dir = LibraryDirectory();
  PeerCache peer;
  BenchAdd(peer);
  {
    RawDatabase raw(dir + "/raw.db");
    BenchDatabaseQuery(raw);
    BenchDatabaseAdds(raw, dir);
  }
}

}  // namespace bench
