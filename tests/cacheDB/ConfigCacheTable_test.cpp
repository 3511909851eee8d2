// The commands of the cache table, and what the templates do that they derive from.
#include "cacheDB/ConfigCacheTable.h"

#include <functional>
#include <map>
#include <random>
#include <stdexcept>

#include "CacheDbTest.h"
#include "util/Log.h"

namespace commonutil {
namespace {

using Entries = std::map<std::string, std::string>;

// Watches each record on its way into a statement.
class WatchedAdd : public AddConfigCacheCommand {
 public:
  void Bind(IDataManipulation* statement, const ConfigCache& item) override {
    m_inTransaction += storage->GetAutoCommit() ? "-" : "t";
    if (item.key == "b") m_onB();
    AddConfigCacheCommand::Bind(statement, item);
  }

  std::string m_inTransaction;
  std::function<void()> m_onB = [] {};
};

class ConfigCacheTableTest : public CacheDbTest {
 protected:
  ConfigCacheTableTest() {
    m_storage = m_registry.AddDataStorage(kCacheDbName, DbFile(), "some key");
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
    for (const ConfigCache& row : rows) EXPECT_TRUE(stored.emplace(row.key, row.value).second);
    return stored;
  }
  static int IdOf(const std::string& key) {
    ConfigCache row;
    return QueryConfigCacheCommond().QueryByKey(key, row) ? row.autoId : -1;
  }

  DataStorageMgr& m_registry = DataStorageMgr::GetInst();
  IDataStorage* m_storage;
  const ConfigCacheList m_three{{0, "a", "1"}, {0, "b", "2"}, {0, "c", "3"}};
};

TEST_F(ConfigCacheTableTest, ANameKeepsItsFirstStorageAndACommandItsDatabase) {
  EXPECT_EQ(m_registry.AddDataStorage(kCacheDbName, m_dir.File("second"), "key 2"), m_storage);
  ExpectLog({{kInfo, "return existed storage : " + DbFile()}});
  EXPECT_EQ(support::SensitiveWords(), (std::vector<std::string>{"some key", "key 2"}));
  AddConfigCacheCommand late;
  EXPECT_TRUE(m_registry.RemoveDataStorage(kCacheDbName));
  EXPECT_FALSE(m_registry.RemoveDataStorage(kCacheDbName));
  EXPECT_EQ(late.BatchAdd(m_three), 3);
  EXPECT_EQ(AddConfigCacheCommand().BatchAdd(m_three), 0);  // has no database
  Create();
  ExpectLog({{kInfo, "ConfigCacheTable created.", 2}});  // said in any case
}

TEST_F(ConfigCacheTableTest, OnlyABatchOfTwoOrMoreRunsInATransaction) {
  WatchedAdd add;
  add.SingleAdd({0, "a", "1"});
  EXPECT_EQ(add.BatchAdd(m_three), 3);
  EXPECT_EQ(add.m_inTransaction, "-ttt");
  EXPECT_TRUE(m_storage->GetAutoCommit());
}

TEST_F(ConfigCacheTableTest, AnExceptionRollsTheWholeBatchBackAndItsKindIsLogged) {
  struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  const struct {
    std::function<void()> fail;
    const char* logged;
  } cases[] = {{[] { throw SQLiteException(5); }, nullptr},
               {[] { throw std::runtime_error("boom"); }, "std exception : boom"},
               {[] { throw Silent(); }, "unknown std exception : "},
               {[] { throw 5; }, "unknown exception !"}};
  for (const auto& c : cases) {
    support::ClearLog();
    WatchedAdd add;
    add.m_onB = c.fail;
    EXPECT_EQ(add.BatchAdd(m_three), 1);
    EXPECT_TRUE(m_storage->GetAutoCommit());
    EXPECT_EQ(Stored(), Entries());
    EXPECT_EQ(support::CountLogPrefix(c.logged ? c.logged : "", kError), c.logged ? 1 : 0);
  }
}

TEST_F(ConfigCacheTableTest, ARecordReplacesTheRowOfItsKeyAndTheRowOfItsId) {
  AddConfigCacheCommand add;
  add.Execute(ConfigCache{0, "k", "old"});
  EXPECT_EQ(add.LastRowId(), 1);
  EXPECT_EQ(add.SingleAdd({-5, "k", "new"}), 1);  // under a new row id
  EXPECT_EQ(add.LastRowId(), 1);
  EXPECT_EQ(IdOf("k"), 2);
  // A reset keeps bindings: a record without a row id once took over that of the one before.
  EXPECT_EQ(add.BatchAdd({{7, "a", "1"}, {0, "b", "2"}, {3, "c", ""}}), 3);
  EXPECT_EQ(IdOf("b"), 8);
  EXPECT_EQ(add.SingleAdd({7, "b", "3"}), 1);
  Create();  // in vain
  EXPECT_EQ(Stored(), (Entries{{"k", "new"}, {"b", "3"}, {"c", ""}}));
  EXPECT_EQ(support::CountLogPrefix("[sdkcache.db] sqlite exception("), 0);
}

// As a full disk does, a promise that the rows do not keep lets each statement pass, not the
// commit.
TEST_F(ConfigCacheTableTest, ABatchWhoseCommitIsRefusedHasAddedNothingAndLeavesNoTransactionOpen) {
  m_storage->Exec("PRAGMA foreign_keys = ON;");
  m_storage->Exec("CREATE TABLE P(ID INTEGER PRIMARY KEY);");
  m_storage->Exec("CREATE TABLE C(ID INTEGER REFERENCES P(ID) DEFERRABLE INITIALLY DEFERRED);");
  m_storage->Exec(
      "CREATE TRIGGER T AFTER INSERT ON ConfigCacheTab BEGIN INSERT INTO C VALUES (1); END;");
  EXPECT_EQ(AddConfigCacheCommand().BatchAdd(m_three), 0);
  EXPECT_TRUE(m_storage->GetAutoCommit());
  m_storage->Exec("INSERT INTO P VALUES (1);");
  EXPECT_EQ(AddConfigCacheCommand().BatchAdd(m_three), 3);
  EXPECT_EQ(Stored().size(), m_three.size());
}

TEST_F(ConfigCacheTableTest, KeysMatchExactlyAndAreNeverPartOfTheStatement) {
  const std::string quoted = "k' OR '1'='1";
  AddConfigCacheCommand().BatchAdd({{0, "k", "1"}, {0, "K", "2"}, {0, "k%", "3"}});
  EXPECT_EQ(IdOf("k%"), 3);
  ConfigCache row{5, "before", "before"};
  EXPECT_FALSE(QueryConfigCacheCommond().QueryByKey(quoted, row));
  EXPECT_EQ(row.key, "before");
  EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey(quoted), 0);
  EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey("k%"), 1);
  // 2 means all to the callers above, here nothing.
  RemoveConfigCacheCommand().SingleExecute(2, row);
  EXPECT_FALSE(QueryConfigCacheCommond().SingleExecute(2, row, row));
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
    if (random() % 2 == 0) {
      ConfigCacheList batch(random() % 4);
      for (ConfigCache& row : batch) {
        row = {0, someKey(), std::to_string(random())};
        expected[row.key] = row.value;
      }
      EXPECT_EQ(AddConfigCacheCommand().BatchAdd(batch), static_cast<int>(batch.size()));
    } else if (random() % 30 != 0) {
      const std::string key = someKey();
      EXPECT_EQ(RemoveConfigCacheCommand().RemoveByKey(key), static_cast<int>(expected.erase(key)));
    } else {
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
