#include <functional>
#include <list>
#include <stdexcept>
#include <vector>

#include "CacheDbTest.h"
#include "cacheDB/ConfigCacheTable.h"
#include "cacheDB/DataModelBase.h"
#include "util/Log.h"

namespace commonutil {
namespace {

constexpr char kStore[] = "model.db";

using Words = std::list<std::string>;

class AddWords : public DMLInsertBase<std::string, Words> {
 public:
  using DMLInsertBase::ComposeSQL;
  AddWords() : DMLInsertBase(kStore, 0) {}
  void ComposeSQL(std::string& sql) override { sql = m_sql; }
  void Bind(IDataManipulation* statement, const std::string& word) override {
    m_inTransaction.push_back(!storage->GetAutoCommit());
    if (word == "b") m_onB();
    (void)statement->Bind(1, word);
  }

  std::string m_sql = "INSERT OR IGNORE INTO W(T) VALUES (?);";
  std::vector<bool> m_inTransaction;
  std::function<void()> m_onB = [] {};
};

class DataModelTest : public CacheDbTest {
 protected:
  DataModelTest() {
    m_storage = DataStorageMgr::GetInst().AddDataStorage(kStore, m_dir.File(kStore), "");
    m_storage->Exec("CREATE TABLE W(ID INTEGER PRIMARY KEY, T TEXT UNIQUE);");
  }

  std::string CountRows() { return ReadText(*m_storage, "SELECT COUNT(*) FROM W;"); }

  IDataStorage* m_storage;
};

TEST_F(DataModelTest, ANameKeepsItsFirstStorage) {
  DataStorageMgr& registry = DataStorageMgr::GetInst();
  IDataStorage* const first = registry.AddDataStorage("name", m_dir.File("first"), "key 1");
  EXPECT_EQ(registry.AddDataStorage("name", m_dir.File("second"), "key 2"), first);
  EXPECT_EQ(registry.GetDataStorage("name"), first);
  ExpectLog({{kInfo, "return existed storage : " + m_dir.File("first")}});
  EXPECT_EQ(support::SensitiveWords(), (std::vector<std::string>{"key 1", "key 2"}));
  EXPECT_TRUE(registry.RemoveDataStorage("name"));
  EXPECT_FALSE(registry.RemoveDataStorage("name"));
}

TEST_F(DataModelTest, ACommandKeepsItsDatabaseWhileTheRegistryDropsIt) {
  AddWords add;
  DataStorageMgr::GetInst().Uninit();
  add.SingleExecute(0, "late");
  EXPECT_EQ(add.Affected(), 1);
}

TEST_F(DataModelTest, OnlyABatchOfTwoOrMoreRunsInATransaction) {
  AddWords add;
  add.SingleExecute(0, "a");
  add.Execute(Words{"b", "a", "c"});
  EXPECT_EQ(add.m_inTransaction, (std::vector<bool>{false, true, true, true}));
  EXPECT_EQ(add.Affected(), 2);
  EXPECT_TRUE(m_storage->GetAutoCommit());
  EXPECT_EQ(CountRows(), "3");
}

TEST_F(DataModelTest, AnExceptionRollsTheWholeBatchBackAndItsKindIsLogged) {
  struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  AddWords add;
  const auto expectNothing = [&](const std::function<void()>& onB) {
    add.m_onB = onB;
    add.Execute(Words{"a", "b", "c"});
    EXPECT_EQ(add.Affected(), 1);
    EXPECT_TRUE(m_storage->GetAutoCommit());
    EXPECT_EQ(CountRows(), "0");
  };
  expectNothing([] { throw SQLiteException(5); });
  EXPECT_EQ(support::CountLogPrefix("", kError), 0);
  expectNothing([] { throw std::runtime_error("boom"); });
  expectNothing([] { throw Silent(); });
  expectNothing([] { throw 5; });
  ExpectLog({{kError, "std exception : boom"},
             {kError, "unknown std exception : "},
             {kError, "unknown exception !"}});
}

TEST_F(DataModelTest, ASingleInsertRemembersTheRowIdOfTheLastRowWritten) {
  AddWords add;
  for (const int written : {1, 0}) {  // ignored: the word is there
    add.Execute(std::string("a"));
    EXPECT_EQ(add.LastRowId(), 1);
    EXPECT_EQ(add.Affected(), written);
  }
  add.m_sql = "no statement";
  add.Execute(Words());
  ExpectLog({{kInfo, "[model.db] sqlite3_prepare_v2(no statement)"}});
}

TEST_F(DataModelTest, WithoutADatabaseNothingHappens) {
  DataStorageMgr::GetInst().Uninit();
  AddWords add;
  add.Execute(Words{"a", "b"});
  add.Execute(std::string("a"));
  EXPECT_EQ(add.Affected(), 0);
  DataModel::GetInst().CreateSDKCacheTables();
  ExpectLog({{kInfo, "ConfigCacheTable created."}});  // said in any case
}

}  // namespace
}  // namespace commonutil
