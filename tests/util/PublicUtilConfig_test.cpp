#include <sys/stat.h>

#include <thread>

#include <gtest/gtest.h>

#include "support/Child.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/PublicUtil.h"

namespace commonutil {
namespace {

constexpr char kConfigFile[] = "sdkCommonConfig.json";

// The identity is kept for the life of the process: every test that may read it in this
// process uses this one, the others run in a child.
constexpr char kConfig[] = R"({
  "zel_domain_identity": "zeldomain",
  "zel_intranet": "https://a.zeldomain.com/x?u=zeldomain.com",
  "zel_other": "https://a.zeldomain.net/",
  "zel_number": 5
})";
constexpr char kOther[] = "https://a.zeldomain.net/";

std::string Url(const char* key) { return PublicUtil::GetUrlFromCommonConfig(key); }

class PublicUtilConfigTest : public ::testing::Test {
 protected:
  PublicUtilConfigTest() {
    support::ResetPlatformDouble();
    PublicUtil::SetConfigFilePath(m_dir.Path());
    WriteConfig(kConfig);
  }
  ~PublicUtilConfigTest() override { PublicUtil::SetServerDomainStrategy("com", false); }

  void WriteConfig(const std::string& content) const {
    support::WriteWholeFile(m_dir.File(kConfigFile), content);
  }

  const support::TempDir m_dir;
};

TEST_F(PublicUtilConfigTest, PathGetsASeparatorUnlessItEndsInOne) {
  support::WriteWholeFile(m_dir.Path() + "/back\\slash\\" + kConfigFile, kConfig);
  for (const char* end : {"", "/", "/back\\slash", "/back\\slash\\"}) {
    PublicUtil::SetConfigFilePath(m_dir.Path() + end);
    PublicUtil::SetConfigFilePath("");  // keeps the path before
    EXPECT_EQ(Url("zel_other"), kOther) << end;
  }
}

TEST_F(PublicUtilConfigTest, UrlIsReadAnewAndLoggedAndTheFileKeptFromOthers) {
  for (const std::string& content :
       {std::string(), std::string("no json"), std::string("[1,2]"), std::string("5"),
        std::string(100000, '['), std::string("\0{}", 3), std::string(kConfig)}) {
    WriteConfig(content);
    ASSERT_EQ(::chmod(m_dir.File(kConfigFile).c_str(), 0666), 0);
    EXPECT_EQ(Url("zel_number"), "");
    EXPECT_EQ(Url("zel_other"), content == kConfig ? kOther : "");
    struct stat status;
    ASSERT_EQ(::stat(m_dir.File(kConfigFile).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640U);
  }
  EXPECT_EQ(support::CountLog("get url zel_number: ", 2), 6);
  EXPECT_EQ(support::CountLog(std::string("get url zel_other: ") + kOther, 2), 1);
  support::ClearLog();
  PublicUtil::SetConfigFilePath(m_dir.File("none"));
  EXPECT_EQ(Url("zel_other"), "");
  const support::LogLine line = support::LogLines().back();
  EXPECT_EQ(line.text, "read config file [" + m_dir.File("none/") + kConfigFile + "] error");
  EXPECT_EQ(line.level, 0);
  EXPECT_EQ(line.function, "GetUrlFromCommonConfig");
}

TEST_F(PublicUtilConfigTest, ChangedStrategyReplacesTheFirstDotComOfTheIdentity) {
  PublicUtil::SetServerDomainStrategy("eu", true);
  PublicUtil::SetServerDomainStrategy("", false);  // changes neither
  EXPECT_EQ(Url("zel_intranet"), "https://a.zeldomain.eu/x?u=zeldomain.com");
  EXPECT_EQ(Url("zel_other"), kOther);
  PublicUtil::SetServerDomainStrategy("eu", false);
  EXPECT_EQ(Url("zel_intranet"), "https://a.zeldomain.com/x?u=zeldomain.com");
}

// Under a thread sanitizer: the identity is read without the lock once it is known.
TEST_F(PublicUtilConfigTest, ConcurrentReadersSeeWholeValues) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([this] {
      for (int i = 0; i < 50; ++i) {
        PublicUtil::SetServerDomainStrategy(i % 2 ? "eu" : "org", true);
        PublicUtil::SetConfigFilePath(m_dir.Path());
        EXPECT_NE(Url("zel_intranet").find("zeldomain."), std::string::npos);
        EXPECT_EQ(PublicUtil::GetServerDomainIdentity(), "zeldomain");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// In a process that does not know the identity yet.
TEST_F(PublicUtilConfigTest, TheIdentityIsReadUntilItIsFoundAndThenKept) {
  support::ExpectTrueInFreshProcess([this] {
    for (const char* content :
         {"", R"({"zel_domain_identity": 5})", R"({"zel_domain_identity": ""})", "no json",
          R"({"zel_intranet": "https://a.zeldomain.com/"})"}) {
      WriteConfig(content);
      EXPECT_EQ(PublicUtil::GetServerDomainIdentity(), "") << content;
    }
    const support::LogLine first = support::LogLines().at(1);
    EXPECT_EQ(first.text, "read config file [" + m_dir.File(kConfigFile) + "] error");
    EXPECT_EQ(first.function, "GetServerDomainIdentity");
    PublicUtil::SetServerDomainStrategy("eu", true);
    EXPECT_EQ(Url("zel_intranet"), "https://a.zeldomain.com/");
    WriteConfig(kConfig);
    EXPECT_EQ(Url("zel_intranet"), "https://a.zeldomain.eu/x?u=zeldomain.com");
    EXPECT_EQ(support::CountLog("get server domain identity zel_domain_identity: zeldomain", 2), 1);
    WriteConfig(R"({"zel_domain_identity": "second"})");
    std::filesystem::remove_all(m_dir.Path());
    return PublicUtil::GetServerDomainIdentity() == "zeldomain";
  });
}

}  // namespace
}  // namespace commonutil
