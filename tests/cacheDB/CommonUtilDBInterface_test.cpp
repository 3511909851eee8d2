#include "cacheDB/CommonUtilDBInterface.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include <sqlite3.h>

#include "CacheDbTest.h"
#include "prax/prax_ref.h"
#include "util/Log.h"

namespace commonutil {
namespace {

namespace fs = std::filesystem;
using support::CountLog;
using support::ReadWholeFile;
using support::WriteWholeFile;
using support::ZormCalls;
using Codes = std::deque<int>;

constexpr char kNothing[] = "415000002";
constexpr char kThree[] = "0 1:a=abc 2:b=abcd 3:c=";
constexpr int kPauseMs = 100;

std::atomic<int> g_pausedMs{0};

// A manager before its first initialisation, whatever the process has done before.
class FreshManager : public SqliteInterfaceManager {};

class CommonUtilDBInterfaceTest : public CacheDbTest {
 protected:
  CommonUtilDBInterfaceTest() { WatchPauses(); }

  static void WatchPauses() {
    g_pausedMs = 0;
    PRAX_Ref_SetSleepHook([](unsigned int ms) { g_pausedMs += static_cast<int>(ms); });
  }
  int Init() { return m_manager.InitDB(m_dir.Path(), m_dir.Path()); }
  int InitWith(const Codes& starts, const Codes& stops = {}, int encryptCode = 0) {
    support::SetZormScript({starts, stops, encryptCode});
    return Init();
  }
  // As a process that starts on the files of an earlier one.
  int InitAgain() {
    DataStorageMgr::GetInst().Uninit();
    support::ClearLog();
    return FreshManager().InitDB(m_dir.Path(), m_dir.Path());
  }
  void AddThree() {
    const ZelConfigCache entries[] = {{0, "a", "abc"}, {0, "b", "abcd"}, {0, "c", ""}};
    EXPECT_EQ(m_manager.BatchAddConfigCache(entries, 3), 0);
  }
  // The result and the rows, as in kThree.
  std::string Query(const std::string& key, int keyType, int capacity = 8) {
    ZelConfigCache rows[8];
    const auto query = std::make_shared<ZelQueryConfigCache>();
    query->matchInfo = {key, keyType};
    query->result = rows;
    query->count = capacity;
    std::string found = std::to_string(m_manager.QueryConfigCacheOfSharedPtr(query));
    for (int i = 0; i < query->count; ++i) {
      found += " " + std::to_string(rows[i].autoId) + ":" + rows[i].key + "=" + rows[i].value;
    }
    return found;
  }

  FreshManager m_manager;
};

TEST_F(CommonUtilDBInterfaceTest, RefusesEveryOperationBeforeItsInitialisation) {
  ZelConfigCache entry{0, "k", "v"};
  int count = 1;
  m_manager.SingleAddConfigCache(entry);
  EXPECT_EQ(m_manager.BatchAddConfigCache(&entry, 1), 10001);
  EXPECT_EQ(m_manager.DeleteConfigCache({"k", 1}), 10001);
  EXPECT_EQ(Query("k", 1), "415000001");
  EXPECT_EQ(m_manager.BatchAddConfigCache(nullptr, 1), 10000);
  EXPECT_EQ(m_manager.QueryConfigCache({"k", 1}, nullptr, &count), 411000002);
  EXPECT_EQ(m_manager.QueryConfigCache({"k", 1}, &entry, nullptr), 411000002);
  EXPECT_EQ(m_manager.QueryConfigCacheOfSharedPtr(nullptr), 411000002);
  ExpectLog({{kError, "DB not init", 3},
             {kError, "DB not init, key: k, type: 1"},
             {kError, "ptr is empty.", 4}});
}

TEST_F(CommonUtilDBInterfaceTest, TheFirstStartMakesASecretAndStopsKeyManagement) {
  EXPECT_EQ(Init(), 0);
  EXPECT_EQ(ZormCalls(), (std::vector<std::string>{"start " + m_dir.File("native_sdk.txt") + "|" +
                                                       m_dir.File("zorm/zormStore.dat") + "|" +
                                                       m_dir.File("zorm/zormStore_bak.dat"),
                                                   "encrypt", "stop"}));
  EXPECT_EQ(g_pausedMs, 0);
  const std::string key = support::SensitiveWords().at(0);
  EXPECT_EQ(key.size(), 64u);
  ExpectLog({{kError, "localDBKey is empty!"},
             {kError, "StopZORM ret = 0"},
             {kInfo, "GetDBConnection, key = " + key}});  // masked by a logger
}

TEST_F(CommonUtilDBInterfaceTest, ASaltLineThatCannotBeReadStartsEmptyWithANewSecret) {
  ASSERT_EQ(Init(), 0);
  AddThree();
  const std::string first = ReadWholeFile(SaltFile());
  EXPECT_EQ(InitAgain(), 0);
  EXPECT_EQ(ReadWholeFile(SaltFile()), first);
  const std::pair<std::string, std::string> cases[] = {
      {"", "localDBKey is empty!"},
      {"ABCDEF", "localDBKey error!"},
      {"|", "localDBKey error!"},
      {"|ABCDEF", "DecryptZorm dbRandom failed!"},
      {first.substr(2), "DecryptZorm dbRandom failed!"},
      {first.substr(0, first.find('|') + 1), "orb_pkcs5_derivekey_ex success."}};
  for (const auto& [line, logged] : cases) {
    ASSERT_EQ(Query("", 2), kThree);
    WriteWholeFile(SaltFile(), line);
    EXPECT_EQ(InitAgain(), 0);
    ExpectLog({{kError, logged}, {kWarning, " delete sdkcache.db success"}});
    EXPECT_EQ(Query("", 2), kNothing) << line;
    AddThree();
  }
}

// A salt file or database that could not be read for a moment was taken for damaged: the start made
// a new one, and the entries were gone.
TEST_F(CommonUtilDBInterfaceTest, AStartThatCannotReachItsFilesFailsAndKeepsTheEntries) {
  ASSERT_EQ(Init(), 0);
  AddThree();
  PRAX_Ref_FailNext(PRAX_REF_FOPEN, 1, EMFILE);
  EXPECT_EQ(InitAgain(), 1);
  ExpectLog({{kError, "the salt file cannot be read"}});
  sqlite3_vfs& system = *sqlite3_vfs_find(nullptr);
  const auto open = system.xOpen;
  static int refusal;
  system.xOpen = [](sqlite3_vfs*, const char*, sqlite3_file*, int, int*) { return refusal; };
  for (const int code : {SQLITE_NOMEM, SQLITE_PERM}) {  // the second: no lock is granted
    refusal = code;
    EXPECT_EQ(InitAgain(), 1) << code;
  }
  system.xOpen = open;
  const std::string aside = m_dir.File("aside");
  for (const std::string& file : {SaltFile(), DbFile()}) {  // a link to itself is not missing
    fs::rename(file, aside);
    fs::create_symlink(file, file);
    EXPECT_EQ(InitAgain(), 1);
    fs::rename(aside, file);
  }
  EXPECT_EQ(InitAgain(), 0);
  EXPECT_EQ(Query("", 2), kThree);
}

TEST_F(CommonUtilDBInterfaceTest, AStartIsRetriedAHundredTimesAndTwiceThatForADamagedKeyStore) {
  const struct {
    std::size_t failures;
    int code, result, tries, pauses, stops;
  } cases[] = {{200, 7, 7, 100, 100, 0}, {300, 287, 287, 200, 200, 1}, {101, 254, 0, 100, 101, 2}};
  for (const auto& c : cases) {
    support::ResetPlatformDouble();
    WatchPauses();
    EXPECT_EQ(InitWith(Codes(c.failures, c.code)), c.result);
    EXPECT_EQ(support::CountLogPrefix("start try times:", kInfo), c.tries);
    EXPECT_EQ(g_pausedMs, c.pauses * kPauseMs);
    EXPECT_EQ(support::CountLogPrefix("PRAX_Remove m_zormStoreFileBak, err: ", kError),
              c.code == 287 ? 2 : 0);  // there is none
    const std::vector<std::string> calls = ZormCalls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "stop"), c.stops);
    ExpectLog(
        {{kError, "start zorm failed, ret = " + std::to_string(c.code), c.result == 0 ? 0 : 1},
         {kInfo, "stop and retry", c.code == 254 ? 1 : 0}});
  }
  ExpectLog({{kInfo, "start try times:99 return code:254"}});
}

TEST_F(CommonUtilDBInterfaceTest, AFailedStartLeavesNoCacheAndAFailedSecondOneTheFirst) {
  EXPECT_EQ(InitWith({}, {}, 9), 1);  // no secret, no database
  EXPECT_EQ(ZormCalls().back(), "stop");
  EXPECT_FALSE(fs::exists(SaltFile()));
  EXPECT_FALSE(fs::exists(DbFile()));
  EXPECT_EQ(InitWith({}, {5}), 5);
  EXPECT_EQ(Query("a", 1), "415000001");
  EXPECT_EQ(InitWith({}), 0);
  AddThree();
  EXPECT_EQ(InitWith({}, {5}), 5);
  EXPECT_EQ(Query("c", 1), "0 3:c=");
  ExpectLog({{kError, "generate random or encrypt failed!"},
             {kError, "CheckDBSaltKey failed, ret = 1"},
             {kError, "StopZORM ret = 5", 2}});
}

TEST_F(CommonUtilDBInterfaceTest, QueriesReturnWhatFitsAndHideLongerValuesFromTheLog) {
  ASSERT_EQ(Init(), 0);
  EXPECT_EQ(Query("", 2), kNothing);
  AddThree();
  const struct {
    const char* key;
    int keyType, capacity;
    const char* answer;
  } cases[] = {{"", 2, 2, "0 1:a=abc 2:b=abcd"}, {"b", 1, 0, "0"},      {"absent", 1, 8, kNothing},
               {"", 1, 8, "411000002"},          {"c", 1, 8, "0 3:c="}, {"a", 3, 8, "411000002"}};
  for (const auto& c : cases) EXPECT_EQ(Query(c.key, c.keyType, c.capacity), c.answer);
  ExpectLog({{kInfo, "t:2, autoId: 1, k: a, v: abc"},
             {kInfo, "t:2, autoId: 2, k: b, vLen: 4"},
             {kError, "CONFFIGCACHE_KEY match value is empty. key: "},
             {kError, "keytype is error, key: a, type: 3"}});
}

TEST_F(CommonUtilDBInterfaceTest, DeletesByKeyOrAllAndCountsNothingAsSuccess) {
  ASSERT_EQ(Init(), 0);
  AddThree();
  const struct {
    ZelMatchInfo match;
    int result;
    const char* logged;
  } cases[] = {{{"", 1}, 10000, "CONFFIGCACHE_KEY match value is empty"},
               {{"a", 0}, 10000, "DeleteConfigCache keytype is error"},
               {{"a", 1}, 0, "end, deleteCount = 1"},
               {{"ignored", 2}, 0, "end, deleteCount = 2"},
               {{"", 2}, 0, "end, deleteCount = 0"}};
  for (const auto& c : cases) {
    EXPECT_EQ(m_manager.DeleteConfigCache(c.match), c.result);
    EXPECT_EQ(CountLog(c.logged), 1) << c.logged;
  }
  const ZelConfigCache entry{4, "k", "v"};
  for (const int count : {0, -1}) EXPECT_EQ(m_manager.BatchAddConfigCache(&entry, count), 1);
  EXPECT_EQ(Query("", 2), kNothing);
  m_manager.SingleAddConfigCache(entry);
  EXPECT_EQ(Query("", 2), "0 4:k=v");
}

TEST_F(CommonUtilDBInterfaceTest, TheTrackingLibraryReachesTheSameTableThroughItsCallbacks) {
  ASSERT_EQ(SqliteInterfaceManager::GetInst().InitDB(m_dir.Path(), m_dir.Path()), 0);
  ZelConfigCache entry{0, "tracked", "value"};
  EXPECT_EQ(support::CallCacheBatchAdd(&entry, 1), 0);
  EXPECT_EQ(support::CallCacheBatchAdd(nullptr, 1), 10000);
  int count = 1;
  EXPECT_EQ(support::CallCacheQuery("tracked", &entry, &count), 0);
  EXPECT_EQ(entry.autoId, 1);
  EXPECT_EQ(support::CallCacheQuery(nullptr, &entry, &count), 1);
  EXPECT_EQ(support::CallCacheQuery("absent", &entry, &count), 415000002);
}

TEST_F(CommonUtilDBInterfaceTest, ReadersWritersAndAnotherInitialisationRunAtOnce) {
  ASSERT_EQ(Init(), 0);
  AddThree();
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::thread reader([&] {
    while (!done) wrong += Query("c", 1).compare(0, 2, "0 ") != 0;
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
