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

using support::CountLog;

constexpr char kStore[] = "model.db";

struct Word {
  long long id = 0;
  std::string text;
};
using Words = std::list<Word>;

class AddWords : public DMLInsertBase<Word, Words> {
 public:
  AddWords() : DMLInsertBase(kStore, 0) { lastRowId = -1; }
  void ComposeSQL(std::string& sql) override {
    ++m_itemFree;
    sql = m_sql;
  }
  void ComposeSQL(const Word& item, std::string& sql) override {
    m_composedFrom.push_back(item.text);
    sql = m_sql;
  }
  void Bind(IDataManipulation* statement, const Word& item) override {
    m_inTransaction.push_back(!storage->GetAutoCommit());
    if (m_onBind) m_onBind(item);
    (void)statement->Bind(1, item.text);
  }

  std::string m_sql = "INSERT OR IGNORE INTO W(T) VALUES (?);";
  int m_itemFree = 0;
  std::vector<std::string> m_composedFrom;
  std::vector<bool> m_inTransaction;
  std::function<void(const Word&)> m_onBind;
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
  EXPECT_EQ(first->GetDBPath(), m_dir.File("first"));
  EXPECT_EQ(CountLog("return existed storage : " + m_dir.File("first"), kInfo), 1);
  EXPECT_EQ(registry.GetDataStorage("name"), first);
  EXPECT_EQ(support::SensitiveWords(), (std::vector<std::string>{"key 1", "key 2"}));

  EXPECT_TRUE(registry.RemoveDataStorage("name"));
  EXPECT_FALSE(registry.RemoveDataStorage("name"));
  EXPECT_EQ(registry.GetDataStorage("name"), nullptr);
}

TEST_F(DataModelTest, ACommandKeepsItsDatabaseWhileTheRegistryDropsIt) {
  AddWords add;
  DataStorageMgr::GetInst().Uninit();
  EXPECT_EQ(CountLog("~SQLiteDB"), 0);
  add.SingleExecute(0, {0, "late"});
  EXPECT_EQ(add.Affected(), 1);
}

TEST_F(DataModelTest, OnlyABatchOfTwoOrMoreRunsInATransaction) {
  AddWords add;
  add.SingleExecute(0, {0, "a"});
  EXPECT_EQ(add.m_inTransaction, (std::vector<bool>{false}));
  EXPECT_EQ(add.LastRowId(), -1);

  add.m_inTransaction.clear();
  add.Execute(Words{{0, "b"}, {0, "a"}, {0, "c"}});
  EXPECT_EQ(add.m_inTransaction, (std::vector<bool>{true, true, true}));
  EXPECT_EQ(add.m_composedFrom, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(add.Affected(), 2);
  EXPECT_TRUE(m_storage->GetAutoCommit());
  EXPECT_EQ(CountRows(), "3");
}

TEST_F(DataModelTest, AnExceptionRollsTheWholeBatchBackAndIsLogged) {
  AddWords add;
  add.m_onBind = [](const Word& item) {
    if (item.text == "b") throw std::runtime_error("boom");
  };
  add.Execute(Words{{0, "a"}, {0, "b"}, {0, "c"}});
  EXPECT_EQ(add.Affected(), 1);
  EXPECT_TRUE(m_storage->GetAutoCommit());
  EXPECT_EQ(CountRows(), "0");
  EXPECT_EQ(CountLog("std exception : boom", kError), 1);
}

TEST_F(DataModelTest, TheFilterTellsTheKindsOfExceptionsApart) {
  struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  AddWords add;
  const std::size_t before = support::LogLines().size();
  add.m_onBind = [](const Word&) { throw SQLiteException(5); };
  add.SingleExecute(0, {});
  EXPECT_EQ(support::LogLines().size(), before);
  add.m_onBind = [](const Word&) { throw Silent(); };
  add.Execute(Word());
  EXPECT_EQ(CountLog("unknown std exception : ", kError), 1);
  add.m_onBind = [](const Word&) { throw 5; };
  add.Execute(Word());
  EXPECT_EQ(CountLog("unknown exception !", kError), 1);
}

TEST_F(DataModelTest, ASingleInsertRemembersTheRowIdOfTheLastRowWritten) {
  AddWords add;
  add.Execute(Word{0, "a"});
  add.Execute(Word{0, "b"});
  EXPECT_EQ(add.LastRowId(), 2);
  EXPECT_EQ(add.Affected(), 1);
  add.Execute(Word{0, "a"});  // ignored: the word is there
  EXPECT_EQ(add.LastRowId(), 2);
  EXPECT_EQ(add.Affected(), 0);
  add.m_sql = "no statement";
  const int before = add.m_itemFree;
  add.Execute(Words());  // prepared and never run
  EXPECT_EQ(add.m_itemFree, before + 1);
  EXPECT_EQ(CountLog("[model.db] sqlite3_prepare_v2(no statement)"), 1);
  EXPECT_EQ(CountRows(), "2");
}

TEST_F(DataModelTest, WithoutADatabaseNothingHappens) {
  DataStorageMgr::GetInst().Uninit();
  AddWords add;
  add.Execute(Words{{0, "a"}, {0, "b"}});
  add.Execute(Word{0, "a"});
  EXPECT_EQ(add.Affected(), 0);
  ConfigCacheList rows;
  EXPECT_EQ(QueryConfigCacheCommond().QueryAll(rows), 0);
  DataModel::GetInst().CreateSDKCacheTables();
  EXPECT_EQ(CountLog("ConfigCacheTable created.", kInfo), 1);  // said in any case
}

}  // namespace
}  // namespace commonutil
