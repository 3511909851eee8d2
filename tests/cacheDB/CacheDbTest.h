// Base of the tests around the cache database: a directory of its own, a platform double at
// its start, an empty registry.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cacheDB/DataStorage.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"

namespace commonutil {

class CacheDbTest : public ::testing::Test {
 protected:
  CacheDbTest() { Reset(); }
  ~CacheDbTest() override { Reset(); }

  std::string DbFile() const { return m_dir.File(kCacheDbName); }
  std::string SaltFile() const { return m_dir.File("sdkcache_config.db"); }

  support::TempDir m_dir;

 private:
  static void Reset() {
    DataStorageMgr::GetInst().Uninit();
    support::ResetPlatformDouble();
  }
};

// A line that the log holds `count` times.
struct Logged {
  int level;
  std::string text;
  int count = 1;
};
inline void ExpectLog(const std::vector<Logged>& lines) {
  for (const Logged& line : lines) {
    EXPECT_EQ(support::CountLog(line.text, line.level), line.count) << line.text;
  }
}

// Reads the first column of the only row that `sql` yields; "(none)" without a row.
inline std::string ReadText(IDataStorage& storage, const std::string& sql) {
  const std::unique_ptr<IDataManipulation> statement(storage.CreateDataManipulation(sql));
  std::string text = "(none)";
  if (statement->NextRow()) statement->GetValue(0, text);
  return text;
}

inline unsigned int ModeOf(const std::string& path) {
  return static_cast<unsigned int>(std::filesystem::status(path).permissions());
}

}  // namespace commonutil
