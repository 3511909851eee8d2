#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cache/cache_ref.h"
#include "http/http_ref.h"
#include "zel_platform/cache.h"
#include "zel_platform/http.h"
#include "zel_platform/nettools.h"
#include "zel_platform/prax.h"

namespace {

using Value = std::shared_ptr<std::string>;

Value Text(const std::string& text) { return std::make_shared<std::string>(text); }

class MemoryCacheTest : public testing::Test {
 protected:
  MemoryCacheTest() { orb_cache_ref_reset(); }
  ~MemoryCacheTest() override { orb_cache_ref_reset(); }

  ZELCache& m_cache = *ZELCache::GetInstance();
};

TEST_F(MemoryCacheTest, ARefusedStoreKeepsTheEarlierValueAndANullOneIsKnown) {
  ASSERT_EQ(m_cache.Put("key", Text("old")), 0);
  orb_cache_ref_refuse_stores(2, 41);
  EXPECT_EQ(m_cache.Put("key", Text("new")), 41);
  EXPECT_EQ(m_cache.Put("other", Text("new")), 41);
  Value found = Text("earlier");
  EXPECT_NE(m_cache.Get("other", found), 0);
  EXPECT_EQ(*found, "earlier");
  ASSERT_EQ(m_cache.Get("key", found), 0);
  EXPECT_EQ(*found, "old");
  EXPECT_EQ(m_cache.Put("key", nullptr), 0);
  EXPECT_EQ(m_cache.Get("key", found), 0);
  EXPECT_EQ(found, nullptr);
}

TEST_F(MemoryCacheTest, ThreadsFindOnlyValuesOfTheirKeyAndOneOutlivesItsRemoval) {
  std::vector<std::thread> threads;
  for (unsigned int seed = 0; seed < 4; ++seed) {
    threads.emplace_back([this, seed] {
      std::mt19937 random(seed);
      for (int i = 0; i < 3000; ++i) {
        const std::string key = std::to_string(random() % 8);
        Value found;
        EXPECT_EQ(m_cache.Put(key, Text("value of " + key)), 0);
        if (m_cache.Get(key, found) != 0) continue;
        (void)m_cache.Remove(key);
        EXPECT_EQ(*found, "value of " + key);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(MemoryCacheTest, EveryThreadSeesWhatOneStoredOrRemoved) {
  for (const std::string text : {"first", "second", ""}) {
    ASSERT_EQ(text.empty() ? m_cache.Remove("key") : m_cache.Put("key", Text(text)), 0);
    for (int i = 0; i < 9; ++i) {
      std::thread([&] {
        Value found = Text("");
        EXPECT_EQ(m_cache.Get("key", found) != 0, text.empty());
        EXPECT_EQ(*found, text);
      }).join();
    }
  }
}

TEST(PublicAddressTest, TheEdgesOfEveryPrivateRangeAreToldAndOnlyFourDecimalPartsAreAnAddress) {
  for (const char* text : {"1.0.0.0", "9.255.255.255", "11.0.0.0", "100.63.255.255", "100.128.0.0",
                           "126.0.0.1", "128.0.0.0", "169.253.0.1", "169.255.0.0", "172.15.255.255",
                           "172.32.0.0", "192.167.0.1", "192.169.0.0", "223.255.255.255"}) {
    EXPECT_TRUE(orb_is_public_ipv4(PRAX_InetAddr(text))) << text;
  }
  for (const char* text :
       {"0.0.0.0", "0.255.255.255", "10.0.0.0", "10.255.255.255", "100.64.0.0", "100.127.255.255",
        "127.0.0.1", "169.254.0.0", "169.254.255.255", "172.16.0.0", "172.31.255.255",
        "192.168.0.0", "192.168.255.255", "224.0.0.0", "240.0.0.1"}) {
    EXPECT_FALSE(orb_is_public_ipv4(PRAX_InetAddr(text))) << text;
  }
  for (const char* text : {"", "9.1", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.4 ", " 1.2.3.4",
                           "0x1.2.3.4", "a.b.c.d", "::1"}) {
    EXPECT_EQ(PRAX_InetAddr(text), 0xFFFFFFFFU) << text;
  }
}

TEST(HttpProxyTest, AnotherProxyLeavesNoByteOfTheEarlierPassword) {
  ASSERT_EQ(orb_http_set_proxy("proxy.example", "user", "long-secret", 8080), 0);
  EXPECT_NE(orb_http_set_proxy("other", "user", std::string(256, 'p').c_str(), 1), 0);
  EXPECT_STREQ(orb_http_ref_proxy().password, "long-secret") << "a refused proxy changes nothing";
  ASSERT_EQ(orb_http_set_proxy("proxy.example", nullptr, "x", 0), 0);
  const ORB_HTTP_PROXY kept = orb_http_ref_proxy();
  EXPECT_EQ(std::string(kept.password, sizeof(kept.password)), "x" + std::string(255, '\0'));
  ASSERT_EQ(orb_http_set_proxy("", "user", "secret", 8080), 0);
  EXPECT_STREQ(orb_http_ref_proxy().password, "");
}

}  // namespace
