#include "publicInc/CommonUtilPrivateManager.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cache/cache_ref.h"
#include "cacheDB/CacheDbTest.h"
#include "util/Log.h"
#include "util/MsgMgr.h"
#include "zel_platform/cache.h"

namespace commonutil {
namespace {

using namespace std::string_literals;
using support::CountLog;
using support::CountLogPrefix;

void WaitForWorker() {
  const std::function<int()> nothing = [] { return 0; };
  (void)MsgMainThreadMgrHandler::GetInst().PushCmd(nothing, "test");
}

class PrivateManagerTest : public CacheDbTest {
 protected:
  PrivateManagerTest() {
    EXPECT_EQ(SqliteInterfaceManager::GetInst().InitDB(m_dir.Path(), m_dir.Path()), 0);
    support::ClearLog();
  }
  ~PrivateManagerTest() override { WaitForWorker(); }

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
  const std::function<void()> block = [waited = release.get_future().share()] { waited.wait(); };
  MsgMainThreadMgrHandler::GetInst().PushCmd(block, "test");
  EXPECT_EQ(m_manager.SingleAddConfigCache({0, "key", "value"}), 0);
  EXPECT_EQ(Query("key", 3), 0);  // would wait for ever if it asked the worker
  EXPECT_EQ(m_count, 1);
  EXPECT_EQ(m_rows[0].value, "value");
  EXPECT_EQ(m_rows[0].key, "untouched");
  EXPECT_EQ(m_rows[0].autoId, -7);
  release.set_value();

  EXPECT_EQ(QueryPastMemory("key"), 0);
  EXPECT_EQ(m_count, 1);
  EXPECT_EQ(m_rows[0].key, "key");
  EXPECT_EQ(m_rows[0].value, "value");
  EXPECT_GT(m_rows[0].autoId, 0);
  std::shared_ptr<std::string> value;
  EXPECT_NE(ZELCache::GetInstance()->Get("db__key", value), 0) << "a row read is not kept";
}

TEST_F(PrivateManagerTest, RefusesBadArgumentsWithoutTouchingEitherCache) {
  ASSERT_EQ(m_manager.SingleAddConfigCache({0, "key", "value"}), 0);
  support::ClearLog();
  for (const int count : {0, -1, INT_MIN}) {
    EXPECT_EQ(Query("key", count), 411000002);
    EXPECT_EQ(m_count, count);
    EXPECT_EQ(m_manager.BatchAddConfigCache(m_rows, count), 10000);
  }
  EXPECT_EQ(m_manager.QueryConfigCacheByKey("key", nullptr, &m_count), 411000002);
  EXPECT_EQ(m_manager.QueryConfigCacheByKey("key", m_rows, nullptr), 411000002);
  EXPECT_EQ(m_manager.BatchAddConfigCache(nullptr, 1), 10000);
  EXPECT_EQ(CountLog("param error.", kError), 5);
  EXPECT_EQ(CountLog("ptr is empty.", kError), 4);
  EXPECT_EQ(Query("untouched"), 415000002);
  EXPECT_EQ(Query("unknown", INT_MAX), -1);  // more entries than memory holds
  EXPECT_EQ(m_count, INT_MAX);
  EXPECT_EQ(CountLog("memory error.", kError), 1);

  ASSERT_EQ(ZELCache::GetInstance()->Put("db__key", nullptr), 0);
  EXPECT_EQ(Query("key"), 0) << "a stored null is no value";
  EXPECT_EQ(m_rows[0].value, "value");
}

TEST_F(PrivateManagerTest, MemoryAloneDecidesTheResultOfABatch) {
  const ZelConfigCache rows[] = {{0, "a", "1"}, {0, "b", "2"}, {0, "c", "3"}};
  const struct {
    unsigned int refused;
    int result;
    const char* line;
  } cases[] = {{0, 0, "BatchAddConfigCache, addCount = 3, listLength: 3"},
               {2, 0, "BatchAddConfigCache, addCount = 1, listLength: 3"},
               {3, 1, "BatchAddConfigCache, addCount = 0, listLength: 3"}};
  for (const auto& c : cases) {
    orb_cache_ref_refuse_stores(c.refused, 1);
    EXPECT_EQ(m_manager.BatchAddConfigCache(rows, 3), c.result);
    EXPECT_EQ(CountLog(c.line, kInfo), 1) << c.line;
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
  EXPECT_EQ(CountLog("QueryConfigCacheByKey failed, result: 415000002", kError), 1);
  orb_cache_ref_refuse_stores(1, 1);
  EXPECT_FALSE(m_manager.addConfigInfo("key", "refused"));
  EXPECT_EQ(CountLog("SingleAddConfigCache result = 1 addData.strvalue = refused", kError), 1);

  const std::string keys[] = {"k\0"s, "k\0a"s, "k"s};
  for (const std::string& key : keys) EXPECT_TRUE(m_manager.addConfigInfo(key, "v\0of "s + key));
  EXPECT_TRUE(m_manager.queryConfigInfoByKey("k", value));
  EXPECT_EQ(value, "v\0of k"s);
  for (const std::string& key : keys) {
    EXPECT_EQ(Query(key), 0);
    EXPECT_EQ(m_rows[0].value, "v\0of "s + key);
    EXPECT_EQ(QueryPastMemory(key), 0);
    EXPECT_EQ(m_rows[0].key, "k");
    EXPECT_EQ(m_rows[0].value, "v");
  }
  const std::string longKey(100000, 'k');
  EXPECT_TRUE(m_manager.addConfigInfo(longKey, longKey));
  EXPECT_EQ(QueryPastMemory(longKey), 0);
  EXPECT_TRUE(m_rows[0].value == longKey);
}

TEST(TerminalParamTest, TrackingGetsAllTextsAndConferenceControlTheFourThatFit) {
  const struct {
    std::size_t lengths[4];
    int error;
  } cases[] = {{{128, 128, 127, 127}, 0}, {{129, 128, 128, 127}, 68}, {{256, 256, 256, 256}, 136}};
  const std::size_t limits[] = {128, 128, 127, 127};
  for (const auto& c : cases) {
    support::ResetPlatformDouble();
    tagZelUtilPublicSdkParam param = {};
    char* const fields[] = {param.uuid, param.account, param.gantryIp, param.sbcIp};
    std::vector<std::string> all;
    std::vector<std::string> fitting;
    for (std::size_t i = 0; i < 4; ++i) {
      all.emplace_back(c.lengths[i], static_cast<char>('a' + i));  // 256: without its NUL
      std::memcpy(fields[i], all[i].data(), all[i].size());
      fitting.push_back(c.lengths[i] <= limits[i] ? all[i] : "");
    }
    for (std::size_t i = 0; i < 6; ++i) {
      all.push_back("further " + std::to_string(i));
      std::strcpy(param.further[i], all.back().c_str());
    }
    EXPECT_EQ(CommonUtilPrivateManager::getInst().ConfigPublicSdkParam(param), 0);
    EXPECT_EQ(support::TrackCalls().at(0).texts, all);
    EXPECT_EQ(support::NetCalls().at(0).texts, fitting);
    EXPECT_EQ(CountLog("secure func return err: " + std::to_string(c.error), kError),
              c.error == 0 ? 0 : 1);
  }
}

TEST(TerminalParamTest, ASmartRoomIsPassedOnWithItsResult) {
  CommonUtilPrivateManager& manager = CommonUtilPrivateManager::getInst();
  support::ResetPlatformDouble();
  support::NetScript script;
  script.result = 5;
  support::SetNetScript(script);
  tagZelUtilsSmartRoomParam param = {};
  EXPECT_EQ(manager.ConfigSmartRoomParam(nullptr), 411000002);
  std::memset(param.room, 'r', sizeof(param.room) - 1);
  EXPECT_EQ(manager.ConfigSmartRoomParam(&param), 5);
  std::memset(param.room, 'r', sizeof(param.room));  // without its NUL
  EXPECT_EQ(manager.ConfigSmartRoomParam(&param), 5);
  EXPECT_EQ(CountLogPrefix("secure func return err: ", kError), 1);
  const auto calls = support::NetCalls();
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].texts, std::vector<std::string>{std::string(31, 'r')});
  EXPECT_EQ(calls[1].texts, std::vector<std::string>{""});
}

}  // namespace
}  // namespace commonutil
