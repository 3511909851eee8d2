#include "publicInc/CommonUtilPrivateManager.h"

#include <climits>
#include <cstring>
#include <future>
#include <memory>

#include "cache/cache_ref.h"
#include "cacheDB/CacheDbTest.h"
#include "util/MsgMgr.h"
#include "zel_platform/cache.h"

namespace commonutil {
namespace {

using namespace std::string_literals;
using support::CountLog;

template <class Result>
Result OnWorker(std::function<Result()> command) {
  return MsgMainThreadMgrHandler::GetInst().PushCmd(std::move(command), "test");
}

class PrivateManagerTest : public CacheDbTest {
 protected:
  PrivateManagerTest() {
    EXPECT_EQ(SqliteInterfaceManager::GetInst().InitDB(m_dir.Path(), m_dir.Path()), 0);
    support::ClearLog();
  }
  // Once the worker has done what it was given.
  ~PrivateManagerTest() override {
    (void)OnWorker<int>([] { return 0; });
  }

  int Query(const std::string& key, int capacity = 1) {
    for (ZelConfigCache& row : m_rows) row = {-7, "untouched", "untouched"};
    m_count = capacity;
    return m_manager.QueryConfigCacheByKey(key, m_rows, &m_count);
  }
  // What the database has.
  int QueryPastMemory(const std::string& key) {
    (void)ZELCache::GetInstance()->Remove("db__" + key);
    return Query(key);
  }

  CommonUtilPrivateManager& m_manager = CommonUtilPrivateManager::getInst();
  ZelConfigCache m_rows[3];
  int m_count = 0;
};

TEST_F(PrivateManagerTest, AnAddedValueIsReadableBeforeTheDatabaseHasIt) {
  std::promise<void> release;
  OnWorker<void>([waited = release.get_future().share()] { waited.wait(); });
  EXPECT_EQ(m_manager.SingleAddConfigCache({0, "key", "value"}), 0);
  EXPECT_EQ(Query("key", 3), 0);  // would wait for ever if it asked the worker
  EXPECT_EQ(m_count, 1);
  EXPECT_EQ(m_rows[0].value, "value");
  EXPECT_EQ(m_rows[0].key, "untouched");
  release.set_value();

  EXPECT_EQ(QueryPastMemory("key"), 0);
  EXPECT_EQ(m_count, 1);
  EXPECT_EQ(m_rows[0].key + m_rows[0].value, "keyvalue");
  EXPECT_GT(m_rows[0].autoId, 0);
  std::shared_ptr<std::string> value;
  EXPECT_NE(ZELCache::GetInstance()->Get("db__key", value), 0) << "a row read is not kept";
  ASSERT_EQ(ZELCache::GetInstance()->Put("db__key", nullptr), 0);
  EXPECT_EQ(Query("key"), 0) << "a stored null is no value";
  EXPECT_EQ(m_rows[0].value, "value");
}

TEST_F(PrivateManagerTest, RefusesBadArgumentsWithoutTouchingEitherCache) {
  for (const int count : {0, INT_MIN}) {
    EXPECT_EQ(Query("key", count), 411000002);
    EXPECT_EQ(m_count, count);
    EXPECT_EQ(m_manager.BatchAddConfigCache(m_rows, count), 10000);
  }
  EXPECT_EQ(m_manager.QueryConfigCacheByKey("key", nullptr, &m_count), 411000002);
  EXPECT_EQ(m_manager.QueryConfigCacheByKey("key", m_rows, nullptr), 411000002);
  EXPECT_EQ(m_manager.BatchAddConfigCache(nullptr, 1), 10000);
  EXPECT_EQ(CountLog("param error.", 0), 4);
  EXPECT_EQ(CountLog("ptr is empty.", 0), 3);
  EXPECT_EQ(Query("untouched"), 415000002);
  EXPECT_EQ(Query("unknown", INT_MAX), -1);  // more entries than memory holds
  EXPECT_EQ(m_count, INT_MAX);
  EXPECT_EQ(CountLog("memory error.", 0), 1);
}

TEST_F(PrivateManagerTest, MemoryAloneDecidesTheResultOfABatch) {
  const ZelConfigCache rows[] = {{0, "a", "1"}, {0, "b", "2"}, {0, "c", "3"}};
  for (const auto& [refused, result] : {std::pair(0, 0), {2, 0}, {3, 1}}) {
    orb_cache_ref_refuse_stores(static_cast<unsigned int>(refused), 1);
    EXPECT_EQ(m_manager.BatchAddConfigCache(rows, 3), result);
    EXPECT_EQ(CountLog("BatchAddConfigCache, addCount = " + std::to_string(3 - refused) +
                           ", listLength: 3",
                       2),
              1);
  }
  EXPECT_EQ(QueryPastMemory("b"), 0);
  EXPECT_EQ(m_rows[0].value, "2");

  DataStorageMgr::GetInst().Uninit();  // the database takes nothing any more
  EXPECT_EQ(m_manager.BatchAddConfigCache(rows, 3), 0);
  EXPECT_EQ(Query("c"), 0);
}

TEST_F(PrivateManagerTest, ADeletedEntryIsGoneFromBothAndDoesNotComeBack) {
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(m_manager.SingleAddConfigCache({0, "key", std::to_string(i)}), 0);
    EXPECT_EQ(m_manager.DeleteConfigCacheByKey("key"), 0);
    ASSERT_EQ(Query("key"), 415000002);
    EXPECT_EQ(m_count, 0);
  }
  EXPECT_EQ(m_manager.DeleteConfigCacheByKey("key"), 0) << "also without such an entry";
  EXPECT_EQ(m_manager.DeleteConfigCacheByKey(""), 10000);
  EXPECT_EQ(Query(""), 411000002);
}

// The database binds texts up to their first NUL.
TEST_F(PrivateManagerTest, KeysThatDifferBehindANulByteAreOneEntryOfTheDatabaseOnly) {
  std::string value = "untouched";
  EXPECT_FALSE(m_manager.queryConfigInfoByKey("key", value));
  EXPECT_EQ(value, "untouched");
  EXPECT_EQ(CountLog("QueryConfigCacheByKey failed, result: 415000002", 0), 1);
  orb_cache_ref_refuse_stores(1, 1);
  EXPECT_FALSE(m_manager.addConfigInfo("key", "refused"));
  EXPECT_EQ(CountLog("SingleAddConfigCache result = 1 addData.strvalue = refused", 0), 1);

  const std::string keys[] = {"k\0"s, "k\0a"s, "k"s};
  for (const std::string& key : keys) EXPECT_TRUE(m_manager.addConfigInfo(key, "v\0of "s + key));
  for (const std::string& key : keys) {
    EXPECT_TRUE(m_manager.queryConfigInfoByKey(key, value));
    EXPECT_EQ(value, "v\0of "s + key);
    EXPECT_EQ(QueryPastMemory(key), 0);
    EXPECT_EQ(m_rows[0].key + m_rows[0].value, "kv");
  }
}

TEST(TerminalParamTest, TrackingGetsAllTextsAndConferenceControlTheFourThatFit) {
  for (const auto& [length, error] : {std::pair(127, 0), {128, 68}, {256, 136}}) {
    support::ResetPlatformDouble();
    tagZelUtilPublicSdkParam param = {};
    char* const fields[] = {param.uuid, param.account, param.gantryIp, param.sbcIp};
    std::vector<std::string> all;
    for (std::size_t i = 0; i < 4; ++i) {
      // The first two hold one byte more. 256: without its NUL.
      all.emplace_back(length, static_cast<char>('a' + i));
      std::memcpy(fields[i], all[i].data(), all[i].size());
    }
    for (std::size_t i = 0; i < 6; ++i) {
      all.push_back("further " + std::to_string(i));
      std::strcpy(param.further[i], all.back().c_str());
    }
    EXPECT_EQ(CommonUtilPrivateManager::getInst().ConfigPublicSdkParam(param), 0);
    EXPECT_EQ(support::TrackCalls().at(0).texts, all);
    all.resize(4);
    for (std::size_t i = 0; i < 4; ++i) {
      if (all[i].size() > (i < 2 ? 128U : 127U)) all[i].clear();
    }
    EXPECT_EQ(support::NetCalls().at(0).texts, all);
    EXPECT_EQ(CountLog("secure func return err: " + std::to_string(error), 0), error == 0 ? 0 : 1);
  }
}

TEST(TerminalParamTest, ASmartRoomIsPassedOnWithItsResult) {
  CommonUtilPrivateManager& manager = CommonUtilPrivateManager::getInst();
  support::ResetPlatformDouble();
  support::NetScript script;
  script.result = 5;
  support::SetNetScript(script);
  EXPECT_EQ(manager.ConfigSmartRoomParam(nullptr), 411000002);
  tagZelUtilsSmartRoomParam param = {};
  std::memset(param.room, 'r', sizeof(param.room) - 1);
  EXPECT_EQ(manager.ConfigSmartRoomParam(&param), 5);
  EXPECT_EQ(support::NetCalls().at(0).texts, std::vector<std::string>{std::string(31, 'r')});
  std::memset(param.room, 'r', sizeof(param.room));  // without its NUL
  EXPECT_EQ(manager.ConfigSmartRoomParam(&param), 5);
  EXPECT_EQ(support::NetCalls().at(1).texts, std::vector<std::string>{""});
  EXPECT_EQ(support::CountLogPrefix("secure func return err: ", 0), 1);
}

}  // namespace
}  // namespace commonutil
