#include "CommonUtilConfig.h"

#include <errno.h>

#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/Log.h"

namespace commonutil {
namespace {

using namespace std::string_literals;
using Settings = std::map<std::string, std::string>;
using support::ReadWholeFile;
using support::WriteWholeFile;

constexpr std::size_t kReadBytes = 64 * 1024;  // what is read at a time

// The process's own initialises once only.
class OwnConfig : public ConfigManager {};

class CommonUtilConfigTest : public testing::Test {
 protected:
  CommonUtilConfigTest() { support::ResetPlatformDouble(); }
  ~CommonUtilConfigTest() override { PRAX_Ref_Reset(); }

  std::string File() const { return m_dir.File("config.txt"); }

  support::TempDir m_dir;
  OwnConfig m_config;
};

TEST_F(CommonUtilConfigTest, TakesTextsAsTheyStandAndTheFirstOfAKey) {
  const std::string longText(2 * kReadBytes, 'l');
  const std::string upToTheEdge(kReadBytes - 3, 'e');
  const struct {
    std::string content;
    Settings expected;
  } cases[] = {
      {"\n\n", {}},
      {"key = value\na=b=c\na=2\n", {{"key ", " value"}, {"a", "b=c"}}},
      {"empty=\n=value\nno sign\n", {{"empty", ""}, {"", "value"}}},
      {"a=1\r\n#b=2\n", {{"a", "1\r"}, {"#b", "2"}}},
      {"n\0l=v\0e\n\0\n"s, {{"n\0l"s, "v\0e"s}}},
      {longText + "=" + longText + "\nb=2", {{longText, longText}, {"b", "2"}}},
      {"e=" + upToTheEdge + "\nb=2\n", {{"e", upToTheEdge}, {"b", "2"}}},
  };
  for (const auto& c : cases) {
    WriteWholeFile(File(), c.content);
    OwnConfig config;
    EXPECT_EQ(config.InitConfig(m_dir.Path() + "/"), 0);
    EXPECT_EQ(config.GetConfigs(), c.expected) << c.content.substr(0, 40);
    EXPECT_EQ(ReadWholeFile(File()), c.content);
  }
}

TEST_F(CommonUtilConfigTest, InitialisesOnceWhateverTheFirstTimeFound) {
  EXPECT_EQ(m_config.readConfig(), 1);
  EXPECT_EQ(m_config.InitConfig(m_dir.Path()), 0);
  EXPECT_EQ(ReadWholeFile(File()), "") << "made where it was missing";
  EXPECT_TRUE(m_config.GetConfigs().empty());

  const support::TempDir other;
  WriteWholeFile(other.File("config.txt"), "other=1\n");
  EXPECT_EQ(m_config.InitConfig(other.Path()), 1);
  EXPECT_EQ(support::CountLog("has inited config!", kWarning), 1);
  EXPECT_TRUE(m_config.GetConfigs().empty());

  WriteWholeFile(File(), "a=1\n");
  EXPECT_EQ(m_config.readConfig(), 0);
  WriteWholeFile(File(), "a=2\nb=2\n");
  EXPECT_EQ(m_config.readConfig(), 0);
  EXPECT_EQ(m_config.GetConfig("a"), "1");
  EXPECT_EQ(m_config.GetConfig("b"), "2");
  EXPECT_EQ(m_config.GetConfig("c"), "");
}

TEST_F(CommonUtilConfigTest, WhatCannotBeOpenedYieldsNothingAndIsNoFailure) {
  EXPECT_EQ(m_config.InitConfig(m_dir.File("missing")), 0);
  EXPECT_FALSE(ConfigManager::Exists(m_dir.File("missing")));
  std::filesystem::create_directories(m_dir.File("directory/config.txt"));
  OwnConfig directory;
  EXPECT_EQ(directory.InitConfig(m_dir.File("directory")), 0);
  EXPECT_TRUE(directory.GetConfigs().empty());

  WriteWholeFile(File(), "first=1\n");
  std::filesystem::resize_file(File(), 100U << 20);  // the rest is one line of NUL bytes
  PRAX_Ref_FailNext(PRAX_REF_FOPEN, 1, EACCES);
  OwnConfig denied;
  EXPECT_EQ(denied.InitConfig(m_dir.Path()), 0);
  EXPECT_TRUE(denied.GetConfigs().empty());
  OwnConfig large;
  EXPECT_EQ(large.InitConfig(m_dir.Path()), 0);
  EXPECT_EQ(large.GetConfigs(), (Settings{{"first", "1"}}));
}

}  // namespace
}  // namespace commonutil
