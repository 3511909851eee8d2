// The database of the config cache, looked at without the library. For copies: opening it finishes
// or takes back what an interrupted write has left.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct sqlite3;

namespace zelctl {

struct CacheRow {
  std::int64_t id = 0;
  std::string key;
  std::string value;
};

// What a check of the database has found.
struct CacheCheck {
  // Counted from 1. Behind one that cannot be read SQLite names no further one.
  std::vector<unsigned int> damagedPages;
  std::vector<std::string> remarks;  // SQLite's own words, a line each
  bool IsSound() const { return remarks.empty(); }
};

class CacheFile {
 public:
  enum class State {
    kOpen,
    kMissing,
    kEmpty,        // a file without content, which SQLite takes for a new database
    kUnencrypted,  // opened without the key
    kUnreadable,   // the key does not fit, or the first page is damaged
    kFailed,       // the system refuses it
  };

  // Throws std::bad_alloc.
  CacheFile(const std::string& path, const std::string& key);
  ~CacheFile();
  CacheFile(const CacheFile&) = delete;
  CacheFile& operator=(const CacheFile&) = delete;

  State GetState() const { return m_state; }
  bool CanRead() const { return CanRead(m_state); }
  // It can be read since its write-ahead log, of another database or key, was removed.
  bool HasForeignLog() const { return m_hasForeignLog; }

  // It can be read, but ends before its last page: no client would open it.
  bool IsCutOff() const { return m_isCutOff; }

  // The rest needs a file that can be read.
  CacheCheck Check();
  bool HasTable();
  bool HasColumns();  // those of today
  bool HasIndex();
  // In the order of their ids; `*isComplete` false when a page cannot be read. Rows behind it are
  // read as far as they can be reached.
  std::vector<CacheRow> Rows(bool* isComplete);
  std::uint32_t PageSize();

  // Makes a new database at `path`. Of rows with one key the last one stays. False on failure.
  static bool Write(const std::string& path, const std::string& key,
                    const std::vector<CacheRow>& rows);

 private:
  static bool CanRead(State state) { return state == State::kOpen || state == State::kUnencrypted; }
  State Open(const std::string& path, const std::string& key);
  bool CanReadLog();
  State WithoutLog(const std::string& path, const std::string& key);
  bool Holds(const char* type, const char* name);
  bool ReadRows(const std::string& condition, std::vector<CacheRow>* rows);

  sqlite3* m_database = nullptr;
  bool m_isCutOff = false;
  bool m_hasForeignLog = false;
  State m_state;  // its initialisation sets the others
};

}  // namespace zelctl
