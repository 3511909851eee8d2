// Base of the tests around the cache database: a directory of its own, a platform double at
// its start, an empty registry.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "cacheDB/DataStorage.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"

namespace commonutil {

class CacheDbTest : public ::testing::Test {
 protected:
  CacheDbTest() {
    DataStorageMgr::GetInst().Uninit();
    support::ResetPlatformDouble();
  }
  ~CacheDbTest() override {
    DataStorageMgr::GetInst().Uninit();
    support::ResetPlatformDouble();
  }

  std::string DbFile() const { return m_dir.File(kCacheDbName); }

  support::TempDir m_dir;
};

// Reads the first column of the only row that `sql` yields; "(none)" without a row.
inline std::string ReadText(IDataStorage& storage, const std::string& sql) {
  const std::unique_ptr<IDataManipulation> statement(storage.CreateDataManipulation(sql));
  std::string text = "(none)";
  if (statement->NextRow()) statement->GetValue(0, text);
  return text;
}

}  // namespace commonutil
