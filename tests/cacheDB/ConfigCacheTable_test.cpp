#include "cacheDB/ConfigCacheTable.h"

#include <map>
#include <random>

#include "CacheDbTest.h"
#include "util/Log.h"

namespace commonutil {
namespace {

using support::CountLog;

class ConfigCacheTableTest : public CacheDbTest {
 protected:
  ConfigCacheTableTest() {
    m_storage = DataStorageMgr::GetInst().AddDataStorage(kCacheDbName, DbFile(), "some key");
    DataModel::GetInst().CreateSDKCacheTables();
    DataModel::GetInst().CreateSDKCacheTableIndexs();
  }

  static std::map<std::string, std::string> Stored() {
    ConfigCacheList rows;
    QueryConfigCacheCommond().QueryAll(rows);
    std::map<std::string, std::string> stored;
    for (const ConfigCache& row : rows) {
      EXPECT_TRUE(stored.emplace(row.key, row.value).second) << row.key;
    }
    return stored;
  }
  static int IdOf(const std::string& key) {
    ConfigCache row;
    return QueryConfigCacheCommond().QueryByKey(key, row) ? row.autoId : -1;
  }

  IDataStorage* m_storage;
};

TEST_F(ConfigCacheTableTest, CreatesItsTableAndIndexOnce) {
  EXPECT_EQ(ReadText(*m_storage,
                     "SELECT sql FROM sqlite_master WHERE type = 'table' AND name = "
                     "'ConfigCacheTab';"),
            "CREATE TABLE ConfigCacheTab( AUTOID  INTEGER PRIMARY KEY AUTOINCREMENT, KEY    "
            "VARCHAR(256) NOT NULL, VALUE  VARCHAR(512))");
  EXPECT_EQ(ReadText(*m_storage, "SELECT sql FROM sqlite_master WHERE type = 'index';"),
            "CREATE UNIQUE INDEX CONFIGCACHE_UNIQUE_INDEX ON ConfigCacheTab(KEY)");
  AddConfigCacheCommand().SingleAdd({0, "k", "v"});
  DataModel::GetInst().CreateSDKCacheTables();
  DataModel::GetInst().CreateSDKCacheTableIndexs();
  EXPECT_EQ(IdOf("k"), 1);
  EXPECT_EQ(support::CountLogPrefix("[sdkcache.db] sqlite exception("), 0);
}

TEST_F(ConfigCacheTableTest, ARecordReplacesTheRowOfItsKeyAndTheRowOfItsId) {
  AddConfigCacheCommand add;
  EXPECT_EQ(add.SingleAdd({0, "k", "old"}), 1);
  EXPECT_EQ(add.SingleAdd({-5, "k", "new"}), 1);  // under a new row id
  EXPECT_EQ(add.LastRowId(), -1);
  EXPECT_EQ(IdOf("k"), 2);
  // A reset keeps bindings: a record without a row id once took over that of the one before.
  EXPECT_EQ(AddConfigCacheCommand().BatchAdd({{7, "a", "1"}, {0, "b", "2"}, {3, "c", ""}}), 3);
  EXPECT_EQ(IdOf("b"), 8);
  EXPECT_EQ(IdOf("c"), 3);
  EXPECT_EQ(add.SingleAdd({7, "b", "3"}), 1);
  EXPECT_EQ(IdOf("b"), 7);
  EXPECT_EQ(Stored(), (std::map<std::string, std::string>{{"k", "new"}, {"b", "3"}, {"c", ""}}));
}

TEST_F(ConfigCacheTableTest, KeysMatchExactlyAndAreNeverPartOfTheStatement) {
  const std::string quoted = "k' OR '1'='1";
  AddConfigCacheCommand().BatchAdd({{0, "k", "1"}, {0, "K", "2"}, {0, "k%", "3"}});
  ConfigCache row{5, "before", "before"};
  EXPECT_FALSE(QueryConfigCacheCommond().QueryByKey(quoted, row));
  EXPECT_EQ(row.key, "before");
  EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey(quoted), 0);
  EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey("k%"), 1);
  EXPECT_EQ(Stored(), (std::map<std::string, std::string>{{"k", "1"}, {"K", "2"}}));
  RemoveConfigCacheCommand remove;
  remove.SingleExecute(2, {0, "k", ""});  // 2 means all to the callers above, here nothing
  EXPECT_FALSE(QueryConfigCacheCommond().SingleExecute(2, {0, "k", ""}, row));
  EXPECT_EQ(CountLog("unknown type : 2", kWarning), 2);
  EXPECT_EQ(RemoveConfigCacheCommand().RemoveByAll(), 2);
  ConfigCacheList rows{row};
  EXPECT_EQ(QueryConfigCacheCommond().QueryAll(rows), 0);
  EXPECT_EQ(rows.size(), 1u);
}

// Random operations, compared with a map after each one and after reopening.
TEST_F(ConfigCacheTableTest, BehavesLikeAMap) {
  m_storage->Exec("PRAGMA synchronous = OFF;");  // no power cut here
  std::mt19937 random(20);
  std::map<std::string, std::string> expected;
  const auto someKey = [&] { return "key " + std::to_string(random() % 12); };
  for (int step = 0; step < 400; ++step) {
    const std::string key = someKey();
    switch (random() % 5) {
      case 0:
        EXPECT_EQ(AddConfigCacheCommand().SingleAdd({0, key, std::to_string(step)}), 1);
        expected[key] = std::to_string(step);
        break;
      case 1: {
        ConfigCacheList batch;
        for (unsigned int i = random() % 4; i > 0; --i) {
          batch.push_back({0, someKey(), std::to_string(step + 1000 * static_cast<int>(i))});
          expected[batch.back().key] = batch.back().value;
        }
        EXPECT_EQ(AddConfigCacheCommand().BatchAdd(batch), static_cast<int>(batch.size()));
        break;
      }
      case 2:
        EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey(key),
                  static_cast<int>(expected.erase(key)));
        break;
      case 3: {
        ConfigCache row;
        ASSERT_EQ(QueryConfigCacheCommond().QueryByKey(key, row), expected.count(key) != 0);
        EXPECT_EQ(row.value, expected.count(key) != 0 ? expected[key] : "");
        break;
      }
      default:
        if (random() % 20 != 0) break;
        EXPECT_EQ(RemoveConfigCacheCommand().RemoveByAll(), static_cast<int>(expected.size()));
        expected.clear();
    }
    ASSERT_EQ(Stored(), expected) << "step " << step;
  }
  m_storage->Close();
  EXPECT_EQ(Stored(), expected);
}

}  // namespace
}  // namespace commonutil
