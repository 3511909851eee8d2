#include "zel_platform/config.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "config/config_ref.h"
#include "config/settings.h"
#include "logger/logger_ref.h"
#include "support/TempDir.h"
#include "zel_platform/logger.h"
#include "zel_platform/track.h"

namespace {

constexpr char kVariable[] = "ZEL_PLATFORM_CONFIG";

class SettingsTest : public testing::Test {
 protected:
  SettingsTest() {
    Reset();
    EXPECT_EQ(LogStream::InitLog("native_sdk", m_log.c_str(), 5120, 0, LOGGER_LEVEL_DEBUG), 0);
  }
  ~SettingsTest() override { Reset(); }
  static void Reset() {
    ::unsetenv(kVariable);
    orb_config_ref_clear();
    logger_ref_reset();
  }

  void Use(const std::string& content) {
    support::WriteWholeFile(m_file, content);
    orb_config_set_directory(m_dir.Path());
  }
  // What was logged since the last call.
  std::string Logged() {
    const std::string log = support::ReadWholeFile(m_log);
    return log.substr(std::exchange(m_seen, log.size()));
  }

  support::TempDir m_dir;
  const std::string m_file = m_dir.File("platform.json"), m_log = m_dir.File("log.txt");
  std::size_t m_seen = 0;
};

TEST_F(SettingsTest, MembersAreFoundByTheirPathAndOthersHaveTheirDefault) {
  Use(R"({"integers":{"69":1,"-3":0,"5":"5"},"http":{"connectTimeoutMs":250,"caFile":"/x"},
          "detect":{"addresses":["a","b"],"requests":3000000000,"pacingMs":1.5}})");
  EXPECT_EQ(orb_config_int("http.connectTimeoutMs", -1), 250);
  for (const char* path :
       {"http.caFile", "http.totalTimeoutMs", "detect.requests", "detect.pacingMs", "http",
        "http.connectTimeoutMs.x", "detect.addresses.x", "", ".", "detect..requests"}) {
    EXPECT_EQ(orb_config_int(path, -1), -1) << path;
  }
  EXPECT_EQ(orb_config_text("http.caFile", "none"), "/x");
  EXPECT_EQ(orb_config_text("detect.addresses.1", "none"), "b");
  for (const char* path :
       {"http.connectTimeoutMs", "audit.baseAddress", "detect.addresses.2", "detect.addresses.",
        "detect.addresses.4294967297", "detect.addresses.-1"}) {
    EXPECT_EQ(orb_config_text(path, "none"), "none") << path;
  }
  EXPECT_EQ(OrbGetGlobalInt32CfgWithDefVal(69, 0), 1);
  EXPECT_EQ(OrbGetGlobalInt32CfgWithDefVal(-3, 8), 0);
  EXPECT_EQ(OrbGetGlobalInt32CfgWithDefVal(5, 8), 8);
  EXPECT_EQ(Logged(), "");
}

TEST_F(SettingsTest, TheVariableWinsOverTheDirectoryAndTheStartNamesTheDirectory) {
  EXPECT_EQ(orb_config_int("n", -1), -1);
  support::WriteWholeFile(m_file, R"({"n":1})");
  ASSERT_EQ(InitUnifiedTrack(2, 1024, 1, m_dir.File("log").c_str(), m_dir.Path().c_str()), 0);
  EXPECT_EQ(Track_Uninit(), 0);
  EXPECT_EQ(orb_config_int("n", -1), 1);
  support::WriteWholeFile(m_dir.File("other"), R"({"n":2})");
  ::setenv(kVariable, m_dir.File("other").c_str(), 1);
  EXPECT_EQ(orb_config_int("n", -1), 1) << "read once";
  orb_config_set_directory(m_dir.Path());
  EXPECT_EQ(orb_config_int("n", -1), 2);
}

TEST_F(SettingsTest, ABrokenFileOrNoneIsOneLineAndLeavesEveryDefault) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "broken at line 1, column 1"},
      {"{\"n\":1,\n \"secret\" 2}", "broken at line 2, column 11"},
      {"{\"n\":1} x", "broken at line 1, column 9"},
      {"{\"n\":1,\"n\":2}", "broken at line 1, column 8"},
      {"[1]", "broken at line 1, column 1: no object"},
      {"{\"n\":" + std::string(100000, '['), "nested too deeply"},
      {"{\"n\":1}" + std::string(1024 * 1024, ' '), "is larger than 1 MB"}};
  for (const auto& [content, fault] : cases) {
    Use(content);
    EXPECT_EQ(orb_config_int("n", -1), -1) << fault;
    const std::string line = Logged();
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
    EXPECT_NE(line.find("] platform.json " + fault), std::string::npos) << line;
    EXPECT_NE(line.find("; the defaults hold"), std::string::npos) << line;
    EXPECT_EQ(line.find("secret"), std::string::npos) << line;
  }
  Use(R"({"n":3})");
  EXPECT_EQ(orb_config_int("n", -1), 3) << "a mended file";
  ASSERT_EQ(::mkfifo(m_dir.File("pipe").c_str(), 0600), 0);
  for (const std::string& path :
       {m_dir.File("pipe"), m_dir.Path(), std::string("/dev/zero"), m_dir.File("missing")}) {
    ::setenv(kVariable, path.c_str(), 1);
    orb_config_set_directory("");
    EXPECT_EQ(orb_config_int("n", -1), -1) << path;
    EXPECT_NE(Logged(), "") << path;
  }
}

TEST_F(SettingsTest, TheFileIsReadOnceByManyAtOnceWhileSettingsAreMade) {
  Use("{");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int number = 0; number <= 500; ++number) {  // the last one is never set
        const int value = OrbGetGlobalInt32CfgWithDefVal(number, -9);
        EXPECT_TRUE(value == -9 || value == number) << value;
      }
    });
  }
  for (int number = 0; number < 500; ++number) orb_config_ref_set(number, number);
  for (std::thread& thread : threads) thread.join();
  const std::string log = Logged();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

}  // namespace
