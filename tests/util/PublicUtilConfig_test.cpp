#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/PublicUtil.h"

namespace commonutil {
namespace {

constexpr int kErrorLevel = 0;
constexpr int kInfoLevel = 2;
constexpr char kConfigFile[] = "sdkCommonConfig.json";

// The identity is kept for the life of the process: every test that may read it in this
// process uses this one, the others run in a child.
constexpr char kConfig[] = R"({
  "zel_domain_identity": "zeldomain",
  "zel_intranet": "https://a.zeldomain.com/x?u=zeldomain.com",
  "zel_other": "https://a.zeldomain.net/",
  "zel_number": 5
})";

class PublicUtilConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    support::ResetPlatformDouble();
    PublicUtil::SetServerDomainStrategy("com", false);
    PublicUtil::SetConfigFilePath(m_dir.Path());
  }
  void TearDown() override { PublicUtil::SetServerDomainStrategy("com", false); }

  void WriteConfig(const std::string& content) const {
    support::WriteWholeFile(m_dir.File(kConfigFile), content);
  }

  // Whether a URL is found when `path` is the configuration directory.
  static bool Finds(const std::string& path) {
    PublicUtil::SetConfigFilePath(path);
    return !PublicUtil::GetUrlFromCommonConfig("zel_other").empty();
  }

  static support::LogLine LastLine() {
    const auto lines = support::LogLines();
    return lines.empty() ? support::LogLine{} : lines.back();
  }

  const support::TempDir m_dir;
};

TEST_F(PublicUtilConfigTest, PathGetsASeparatorUnlessItEndsInOne) {
  WriteConfig(kConfig);
  EXPECT_TRUE(Finds(m_dir.Path()));
  EXPECT_TRUE(Finds(m_dir.Path() + "/"));
  EXPECT_TRUE(Finds(""));  // keeps the path before
  support::WriteWholeFile(m_dir.Path() + "/back\\slash\\" + kConfigFile, kConfig);
  EXPECT_TRUE(Finds(m_dir.Path() + "/back\\slash"));
  EXPECT_TRUE(Finds(m_dir.Path() + "/back\\slash\\"));
}

TEST_F(PublicUtilConfigTest, UrlIsReadAnewAndLoggedAndTheFileKeptFromOthers) {
  EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_other"), "");
  EXPECT_EQ(LastLine().text, "read config file [" + m_dir.File(kConfigFile) + "] error");
  EXPECT_EQ(LastLine().level, kErrorLevel);
  EXPECT_EQ(LastLine().function, "GetUrlFromCommonConfig");
  for (const char* content : {"", kConfig}) {
    WriteConfig(content);
    ASSERT_EQ(::chmod(m_dir.File(kConfigFile).c_str(), 0666), 0);
    EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_other"),
              *content == '\0' ? "" : "https://a.zeldomain.net/");
    struct stat status;
    ASSERT_EQ(::stat(m_dir.File(kConfigFile).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640U);
  }
  EXPECT_EQ(LastLine().text, "get url zel_other: https://a.zeldomain.net/");
  EXPECT_EQ(LastLine().level, kInfoLevel);
  EXPECT_EQ(LastLine().file, "commonutil/util/PublicUtil");
  WriteConfig(R"({"zel_other": "changed"})");
  EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_other"), "changed");
}

TEST_F(PublicUtilConfigTest, MissingAndOddMembersAndDamagedFilesGiveAnEmptyUrl) {
  for (const std::string& content :
       {std::string(kConfig), std::string("no json"), std::string("[1,2]"), std::string("5"),
        std::string(100000, '['), std::string("\0{}", 3)}) {
    WriteConfig(content);
    support::ClearLog();
    EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_number"), "");
    EXPECT_EQ(support::LogTexts(), std::vector<std::string>{"get url zel_number: "});
  }
}

TEST_F(PublicUtilConfigTest, ChangedStrategyReplacesTheFirstDotComOfTheIdentity) {
  WriteConfig(kConfig);
  PublicUtil::SetServerDomainStrategy("eu", true);
  EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_intranet"),
            "https://a.zeldomain.eu/x?u=zeldomain.com");
  EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_other"), "https://a.zeldomain.net/");

  PublicUtil::SetServerDomainStrategy("", false);  // changes neither
  EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_intranet"),
            "https://a.zeldomain.eu/x?u=zeldomain.com");

  PublicUtil::SetServerDomainStrategy("eu", false);
  EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_intranet"),
            "https://a.zeldomain.com/x?u=zeldomain.com");
}

TEST_F(PublicUtilConfigTest, ConcurrentReadersAndWritersSeeWholeValues) {
  WriteConfig(kConfig);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  threads.emplace_back([] {
    for (int i = 0; i < 100; ++i) PublicUtil::SetServerDomainStrategy(i % 2 ? "eu" : "org", true);
  });
  threads.emplace_back([this] {
    for (int i = 0; i < 100; ++i) PublicUtil::SetConfigFilePath(m_dir.Path());
  });
  for (int reader = 0; reader < 2; ++reader) {
    threads.emplace_back([&wrong] {
      for (int i = 0; i < 50; ++i) {
        const std::string url = PublicUtil::GetUrlFromCommonConfig("zel_intranet");
        if (url.find("zeldomain.") == std::string::npos) ++wrong;
        if (PublicUtil::GetServerDomainIdentity() != "zeldomain") ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

// In a process that does not know the identity yet.
TEST_F(PublicUtilConfigTest, TheIdentityIsReadUntilItIsFoundAndThenKept) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child begins anew
  const auto body = [this] {
    EXPECT_EQ(PublicUtil::GetServerDomainIdentity(), "");
    EXPECT_EQ(LastLine().text, "read config file [" + m_dir.File(kConfigFile) + "] error");
    EXPECT_EQ(LastLine().function, "GetServerDomainIdentity");
    for (const char* content :
         {"{}", R"({"zel_domain_identity": 5})", R"({"zel_domain_identity": ""})", "no json"}) {
      WriteConfig(content);
      EXPECT_EQ(PublicUtil::GetServerDomainIdentity(), "") << content;
    }
    WriteConfig(R"({"zel_intranet": "https://a.zeldomain.com/"})");
    PublicUtil::SetServerDomainStrategy("eu", true);
    EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_intranet"), "https://a.zeldomain.com/");
    WriteConfig(kConfig);
    support::ClearLog();
    EXPECT_EQ(PublicUtil::GetUrlFromCommonConfig("zel_intranet"),
              "https://a.zeldomain.eu/x?u=zeldomain.com");
    EXPECT_EQ(support::LogTexts(),
              (std::vector<std::string>{
                  "get server domain identity zel_domain_identity: zeldomain",
                  "get url zel_intranet: https://a.zeldomain.eu/x?u=zeldomain.com"}));
    WriteConfig(R"({"zel_domain_identity": "second"})");
    EXPECT_EQ(PublicUtil::GetServerDomainIdentity(), "zeldomain");
    std::filesystem::remove_all(m_dir.Path());
    std::_Exit(HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace commonutil
