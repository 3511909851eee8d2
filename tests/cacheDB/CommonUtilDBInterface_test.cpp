#include "cacheDB/CommonUtilDBInterface.h"

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <thread>

#include <sqlite3.h>

#include "CacheDbTest.h"
#include "prax/prax_ref.h"
#include "util/Log.h"

namespace commonutil {
namespace {

using support::CountLog;
using support::CountLogPrefix;
using support::ReadWholeFile;
using support::WriteWholeFile;
using support::ZormCalls;

std::atomic<int> g_pauses{0};
std::atomic<int> g_oddPauses{0};

void CountPause(unsigned int ms) {
  ++g_pauses;
  if (ms != 100) ++g_oddPauses;
}

// A manager before its first initialisation, whatever the process has done before.
class FreshManager : public SqliteInterfaceManager {};

class CommonUtilDBInterfaceTest : public CacheDbTest {
 protected:
  CommonUtilDBInterfaceTest() {
    g_pauses = 0;
    g_oddPauses = 0;
    PRAX_Ref_SetSleepHook(CountPause);
  }

  int Init() { return m_manager.InitDB(m_dir.Path(), m_dir.Path()); }
  // As a process that starts on the files of an earlier one.
  int InitAgain() {
    EndProcess();
    FreshManager later;
    return later.InitDB(m_dir.Path(), m_dir.Path());
  }
  static void EndProcess() {
    if (IDataStorage* const storage = DataStorageMgr::GetInst().GetDataStorage(kCacheDbName)) {
      storage->Close();
    }
    DataStorageMgr::GetInst().Uninit();
    support::ClearLog();
  }
  void AddThree() {
    const ZelConfigCache entries[] = {{0, "a", "abc"}, {0, "b", "abcd"}, {0, "c", ""}};
    EXPECT_EQ(m_manager.BatchAddConfigCache(entries, 3), 0);
  }
  void InitAndAddThree() {
    ASSERT_EQ(Init(), 0);
    AddThree();
  }
  int Query(const std::string& key, int keyType, int capacity = 1) {
    m_count = capacity;
    return m_manager.QueryConfigCache({key, keyType}, m_rows, &m_count);
  }
  int InitWithStartCodes(std::size_t count, int code) {
    support::ZormScript script;
    script.startCodes.assign(count, code);
    support::SetZormScript(script);
    return Init();
  }
  static int CountCalls(const std::string& prefix) {
    int count = 0;
    for (const std::string& call : ZormCalls())
      count += call.compare(0, prefix.size(), prefix) == 0;
    return count;
  }
  std::string SaltFile() const { return m_dir.File("sdkcache_config.db"); }

  FreshManager m_manager;
  ZelConfigCache m_rows[8];
  int m_count = 0;
};

TEST_F(CommonUtilDBInterfaceTest, RefusesEveryOperationBeforeItsInitialisation) {
  const ZelConfigCache entry{0, "k", "v"};
  m_manager.SingleAddConfigCache(entry);
  EXPECT_EQ(m_manager.BatchAddConfigCache(&entry, 1), 10001);
  EXPECT_EQ(m_manager.DeleteConfigCache({"k", 1}), 10001);
  EXPECT_EQ(CountLog("DB not init", kError), 3);
  EXPECT_EQ(Query("k", 1), 415000001);
  EXPECT_EQ(CountLog("DB not init, key: k, type: 1", kError), 1);
  EXPECT_EQ(m_count, 0);
  EXPECT_EQ(m_manager.BatchAddConfigCache(nullptr, 1), 10000);
  EXPECT_EQ(m_manager.QueryConfigCache({"k", 1}, nullptr, &m_count), 411000002);
  EXPECT_EQ(m_manager.QueryConfigCache({"k", 1}, m_rows, nullptr), 411000002);
  EXPECT_EQ(CountLog("ptr is empty.", kError), 3);
}

TEST_F(CommonUtilDBInterfaceTest, TheFirstStartMakesTheFilesAndStopsKeyManagement) {
  EXPECT_EQ(Init(), 0);
  const std::string line = ReadWholeFile(SaltFile());
  EXPECT_EQ(line.size() - line.find('|'), 33u);
  EXPECT_TRUE(std::filesystem::exists(DbFile()));
  EXPECT_EQ(ReadWholeFile(DbFile()).find("ConfigCacheTab"), std::string::npos);
  EXPECT_EQ(CountLog("localDBKey is empty!", kError), 1);
  EXPECT_EQ(CountLog("StopZORM ret = 0", kError), 1);
  EXPECT_EQ(ZormCalls(), (std::vector<std::string>{"start " + m_dir.File("native_sdk.txt") + "|" +
                                                       m_dir.File("zorm/zormStore.dat") + "|" +
                                                       m_dir.File("zorm/zormStore_bak.dat"),
                                                   "encrypt", "stop"}));
  EXPECT_EQ(g_pauses, 0);
  const std::vector<std::string> words = support::SensitiveWords();
  ASSERT_FALSE(words.empty());
  EXPECT_EQ(words.front().size(), 64u);
  EXPECT_EQ(CountLog("GetDBConnection, key = " + words.front(), kInfo), 1);  // masked by a logger
}

TEST_F(CommonUtilDBInterfaceTest, ASaltLineThatCannotBeReadStartsEmptyWithANewSecret) {
  const char kRefused[] = "localDBKey error!";
  const char kUndecryptable[] = "DecryptZorm dbRandom failed!";
  ASSERT_EQ(Init(), 0);
  const std::string first = ReadWholeFile(SaltFile());
  AddThree();
  EXPECT_EQ(InitAgain(), 0);
  EXPECT_EQ(ReadWholeFile(SaltFile()), first);  // a good one is kept
  WriteWholeFile(SaltFile(), first.substr(0, first.find('|') + 1));
  EXPECT_EQ(InitAgain(), 0);  // an empty salt is a valid one, though of another key
  EXPECT_EQ(CountLogPrefix("localDBKey"), 0);
  AddThree();
  for (const auto& [line, logged] : std::vector<std::pair<std::string, std::string>>{
           {"", "localDBKey is empty!"},
           {"ABCDEF", kRefused},
           {"|", kRefused},
           {"|ABCDEF", kUndecryptable},
           {"no hex|ABCDEF", kUndecryptable},
           {first.substr(2), kUndecryptable},
           {std::string(5000, 'A') + first, kRefused}}) {
    ASSERT_EQ(Query("", 2, 8), 0);
    EXPECT_EQ(m_count, 3);
    WriteWholeFile(SaltFile(), line);
    EXPECT_EQ(InitAgain(), 0);
    EXPECT_EQ(CountLog(logged, kError), 1) << line;
    EXPECT_EQ(CountLog(" delete sdkcache.db success", kWarning), 1) << line;
    EXPECT_NE(ReadWholeFile(SaltFile()), first);
    EXPECT_EQ(Query("", 2, 8), 415000002) << line;
    AddThree();
  }
}

// A salt file or database that could not be read for a moment was taken for damaged: the start made
// a new one, and the entries were gone.
TEST_F(CommonUtilDBInterfaceTest, AStartThatLacksDescriptorsOrMemoryFailsAndKeepsTheEntries) {
  ASSERT_EQ(Init(), 0);
  AddThree();
  const std::string line = ReadWholeFile(SaltFile());
  PRAX_Ref_FailNext(PRAX_REF_FOPEN, 1, EMFILE);
  EXPECT_EQ(InitAgain(), 1);
  EXPECT_EQ(CountLog("the salt file cannot be read", kError), 1);
  sqlite3_vfs& system = *sqlite3_vfs_find(nullptr);
  const auto open = system.xOpen;
  system.xOpen = [](sqlite3_vfs*, const char*, sqlite3_file*, int, int*) { return SQLITE_NOMEM; };
  EXPECT_EQ(InitAgain(), 1);
  system.xOpen = open;
  EXPECT_EQ(InitAgain(), 0);
  EXPECT_EQ(ReadWholeFile(SaltFile()), line);
  EXPECT_EQ(Query("", 2, 8), 0);
  EXPECT_EQ(m_count, 3);
}

TEST_F(CommonUtilDBInterfaceTest, AStartIsRetriedAHundredTimesAndTwiceThatForADamagedKeyStore) {
  const struct {
    std::size_t failures;
    int code, result, tries, pauses, stops;
  } cases[] = {{200, 7, 7, 100, 100, 0}, {300, 287, 287, 200, 200, 1}, {101, 254, 0, 100, 101, 2}};
  for (const auto& c : cases) {
    support::ResetPlatformDouble();
    PRAX_Ref_SetSleepHook(CountPause);
    g_pauses = 0;
    EXPECT_EQ(InitWithStartCodes(c.failures, c.code), c.result);
    EXPECT_EQ(CountLogPrefix("start try times:", kInfo), c.tries);
    EXPECT_EQ(CountLog("start zorm failed, ret = " + std::to_string(c.code), kError),
              c.result == 0 ? 0 : 1);
    EXPECT_EQ(g_pauses, c.pauses);
    EXPECT_EQ(g_oddPauses, 0);
    EXPECT_EQ(CountCalls("stop"), c.stops);
    EXPECT_EQ(CountLog("stop and retry", kInfo), c.code == 254 ? 1 : 0);
    EXPECT_EQ(m_manager.BatchAddConfigCache(m_rows, 1), c.result == 0 ? 0 : 10001);
  }
  EXPECT_EQ(CountLog("start try times:99 return code:254", kInfo), 1);
}

TEST_F(CommonUtilDBInterfaceTest, ADamagedKeyStoreIsDiscardedOnceAndTheDatabaseWithIt) {
  InitAndAddThree();
  std::filesystem::create_directory(m_dir.File("zorm"));
  WriteWholeFile(m_dir.File("zorm/zormStore.dat"), "damaged");
  EndProcess();
  EXPECT_EQ(InitWithStartCodes(101, 287), 0);
  EXPECT_FALSE(std::filesystem::exists(m_dir.File("zorm/zormStore.dat")));
  EXPECT_EQ(CountLogPrefix("PRAX_Remove m_zormStoreFileBak, err: ", kError), 1);  // none there
  EXPECT_EQ(CountLog("DecryptZorm dbRandom failed!", kError), 1);
  EXPECT_EQ(Query("a", 1), 415000002);
}

TEST_F(CommonUtilDBInterfaceTest, WithoutASecretThereIsNoDatabase) {
  support::ZormScript script;
  script.encryptCode = 9;
  support::SetZormScript(script);
  EXPECT_EQ(Init(), 1);
  EXPECT_EQ(CountLog("generate random or encrypt failed!", kError), 1);
  EXPECT_EQ(CountLog("CheckDBSaltKey failed, ret = 1", kError), 1);
  EXPECT_EQ(CountCalls("stop"), 1);
  EXPECT_FALSE(std::filesystem::exists(SaltFile()));
  EXPECT_FALSE(std::filesystem::exists(DbFile()));
}

TEST_F(CommonUtilDBInterfaceTest, AFailedSecondInitialisationLeavesTheCacheUsable) {
  support::ZormScript script;
  script.stopCodes = {5};
  support::SetZormScript(script);
  EXPECT_EQ(Init(), 5);  // while a failed first one leaves none
  EXPECT_EQ(CountLog("StopZORM ret = 5", kError), 1);
  EXPECT_EQ(Query("a", 1), 415000001);
  ASSERT_EQ(InitWithStartCodes(0, 0), 0);
  AddThree();
  EXPECT_EQ(InitWithStartCodes(200, 7), 7);
  EXPECT_EQ(Query("a", 1), 0);
}

TEST_F(CommonUtilDBInterfaceTest, QueriesReturnWhatFitsAndHideLongerValuesFromTheLog) {
  InitAndAddThree();
  EXPECT_EQ(Query("", 2, 2), 0);
  ASSERT_EQ(m_count, 2);
  EXPECT_EQ(m_rows[1].autoId, 2);
  EXPECT_EQ(m_rows[1].key, "b");
  EXPECT_EQ(m_rows[1].value, "abcd");
  EXPECT_EQ(CountLog("t:2, autoId: 1, k: a, v: abc", kInfo), 1);
  EXPECT_EQ(CountLog("t:2, autoId: 2, k: b, vLen: 4", kInfo), 1);
  EXPECT_EQ(CountLogPrefix("t:"), 2);

  EXPECT_EQ(Query("b", 1, 0), 0);
  EXPECT_EQ(m_count, 0);
  const auto query = std::make_shared<ZelQueryConfigCache>();
  query->matchInfo = {"c", 1};
  query->result = m_rows;
  query->count = 8;
  EXPECT_EQ(m_manager.QueryConfigCacheOfSharedPtr(query), 0);
  EXPECT_EQ(query->count, 1);
  EXPECT_EQ(m_rows[0].autoId, 3);
}

TEST_F(CommonUtilDBInterfaceTest, AQueryThatFindsNothingOrIsWrongZeroesTheCount) {
  ASSERT_EQ(Init(), 0);
  EXPECT_EQ(Query("", 2, 8), 415000002);
  EXPECT_EQ(m_count, 0);
  EXPECT_EQ(Query("absent", 1), 415000002);
  EXPECT_EQ(m_count, 0);
  EXPECT_EQ(Query("", 1), 411000002);
  EXPECT_EQ(CountLog("CONFFIGCACHE_KEY match value is empty. key: ", kError), 1);
  EXPECT_EQ(m_count, 0);
  for (const int keyType : {-1, 0, 3}) {
    EXPECT_EQ(Query("a", keyType), 411000002);
    EXPECT_EQ(m_count, 0);
  }
  EXPECT_EQ(CountLogPrefix("keytype is error, key: a", kError), 3);
}

TEST_F(CommonUtilDBInterfaceTest, DeletesByKeyOrAllAndCountsNothingAsSuccess) {
  ASSERT_EQ(Init(), 0);
  for (const int count : {0, -1}) EXPECT_EQ(m_manager.BatchAddConfigCache(m_rows, count), 1);
  EXPECT_EQ(Query("", 2, 8), 415000002);
  AddThree();
  EXPECT_EQ(m_manager.DeleteConfigCache({"", 1}), 10000);
  EXPECT_EQ(CountLog("CONFFIGCACHE_KEY match value is empty", kError), 1);
  EXPECT_EQ(m_manager.DeleteConfigCache({"a", 0}), 10000);
  EXPECT_EQ(CountLog("DeleteConfigCache keytype is error", kError), 1);
  EXPECT_EQ(m_manager.DeleteConfigCache({"a", 1}), 0);
  EXPECT_EQ(CountLog("end, deleteCount = 1", kInfo), 1);
  EXPECT_EQ(Query("a", 1), 415000002);
  EXPECT_EQ(m_manager.DeleteConfigCache({"ignored", 2}), 0);
  EXPECT_EQ(CountLog("end, deleteCount = 2", kInfo), 1);
  EXPECT_EQ(m_manager.DeleteConfigCache({"", 2}), 0);
  EXPECT_EQ(CountLog("end, deleteCount = 0", kInfo), 1);
  m_manager.SingleAddConfigCache({4, "k", "v"});
  EXPECT_EQ(CountLog("addCount = 1", kInfo), 1);
  EXPECT_EQ(Query("k", 1), 0);
  EXPECT_EQ(m_rows[0].autoId, 4);
}

TEST_F(CommonUtilDBInterfaceTest, TheTrackingLibraryReachesTheSameTableThroughItsCallbacks) {
  ASSERT_EQ(SqliteInterfaceManager::GetInst().InitDB(m_dir.Path(), m_dir.Path()), 0);
  const ZelConfigCache entry{0, "tracked", "value"};
  EXPECT_EQ(support::CallCacheBatchAdd(&entry, 1), 0);
  EXPECT_EQ(support::CallCacheBatchAdd(nullptr, 1), 10000);
  m_count = 8;
  EXPECT_EQ(support::CallCacheQuery("tracked", m_rows, &m_count), 0);
  EXPECT_EQ(m_count, 1);
  EXPECT_EQ(m_rows[0].value, "value");
  EXPECT_EQ(support::CallCacheQuery(nullptr, m_rows, &m_count), 1);
  EXPECT_EQ(support::CallCacheQuery("absent", m_rows, &m_count), 415000002);
}

TEST_F(CommonUtilDBInterfaceTest, ReadersWritersAndAnotherInitialisationRunAtOnce) {
  InitAndAddThree();
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::thread reader([&] {
    ZelConfigCache rows[8];
    while (!done) {
      int count = 8;
      if (m_manager.QueryConfigCache({"b", 1}, rows, &count) != 0) ++wrong;
    }
  });
  std::thread starter([&] { wrong += Init(); });
  for (int i = 0; i < 50; ++i) AddThree();
  starter.join();
  done = true;
  reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace commonutil
