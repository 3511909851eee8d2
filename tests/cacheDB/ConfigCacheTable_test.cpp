#include "cacheDB/ConfigCacheTable.h"

#include <map>
#include <random>

#include "CacheDbTest.h"
#include "util/Log.h"

namespace commonutil {
namespace {

using Entries = std::map<std::string, std::string>;

class ConfigCacheTableTest : public CacheDbTest {
 protected:
  ConfigCacheTableTest() {
    m_storage = DataStorageMgr::GetInst().AddDataStorage(kCacheDbName, DbFile(), "some key");
    Create();
  }

  static void Create() {
    DataModel::GetInst().CreateSDKCacheTables();
    DataModel::GetInst().CreateSDKCacheTableIndexs();
  }
  static Entries Stored() {
    ConfigCacheList rows;
    QueryConfigCacheCommond().QueryAll(rows);
    Entries stored;
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

// A row id is never used again, so that nobody takes a later row for an earlier one.
TEST_F(ConfigCacheTableTest, ARecordReplacesTheRowOfItsKeyAndTheRowOfItsId) {
  AddConfigCacheCommand add;
  EXPECT_EQ(add.SingleAdd({0, "k", "old"}), 1);
  EXPECT_EQ(add.SingleAdd({-5, "k", "new"}), 1);
  EXPECT_EQ(add.LastRowId(), -1);
  EXPECT_EQ(IdOf("k"), 2);
  // A reset keeps bindings: a record without a row id once took over that of the one before.
  EXPECT_EQ(add.BatchAdd({{7, "a", "1"}, {0, "b", "2"}, {3, "c", ""}}), 3);
  EXPECT_EQ(IdOf("b"), 8);
  EXPECT_EQ(add.SingleAdd({7, "b", "3"}), 1);
  EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey("c"), 1);
  EXPECT_EQ(add.SingleAdd({0, "c", ""}), 1);
  EXPECT_EQ(IdOf("c"), 9);
  Create();  // in vain
  EXPECT_EQ(Stored(), (Entries{{"k", "new"}, {"b", "3"}, {"c", ""}}));
  EXPECT_EQ(support::CountLogPrefix("[sdkcache.db] sqlite exception("), 0);
}

TEST_F(ConfigCacheTableTest, KeysMatchExactlyAndAreNeverPartOfTheStatement) {
  const std::string quoted = "k' OR '1'='1";
  AddConfigCacheCommand().BatchAdd({{0, "k", "1"}, {0, "K", "2"}, {0, "k%", "3"}});
  ConfigCache row{5, "before", "before"};
  EXPECT_FALSE(QueryConfigCacheCommond().QueryByKey(quoted, row));
  EXPECT_EQ(row.key, "before");
  EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey(quoted), 0);
  EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey("k%"), 1);
  // 2 means all to the callers above, here nothing
  RemoveConfigCacheCommand().SingleExecute(2, {0, "k", ""});
  EXPECT_FALSE(QueryConfigCacheCommond().SingleExecute(2, {0, "k", ""}, row));
  ExpectLog({{kWarning, "unknown type : 2", 2}});
  EXPECT_EQ(Stored(), (Entries{{"k", "1"}, {"K", "2"}}));
}

// Random operations, compared with a map after each one and after reopening.
TEST_F(ConfigCacheTableTest, BehavesLikeAMap) {
  m_storage->Exec("PRAGMA synchronous = OFF;");  // no power cut here
  std::mt19937 random(20);
  Entries expected;
  const auto someKey = [&] { return "key " + std::to_string(random() % 12); };
  for (int step = 0; step < 400; ++step) {
    const std::string key = someKey();
    switch (random() % 3) {
      case 0: {
        ConfigCacheList batch(random() % 4);
        for (ConfigCache& row : batch) {
          row = {0, someKey(), std::to_string(random())};
          expected[row.key] = row.value;
        }
        EXPECT_EQ(AddConfigCacheCommand().BatchAdd(batch), static_cast<int>(batch.size()));
        break;
      }
      case 1:
        EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey(key),
                  static_cast<int>(expected.erase(key)));
        break;
      default:
        ASSERT_EQ(IdOf(key) != -1, expected.count(key) != 0);
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
