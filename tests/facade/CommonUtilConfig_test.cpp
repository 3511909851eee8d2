// How its lines are read is tried by the search for inputs, whose seeds the tests replay.
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

using Settings = std::map<std::string, std::string>;
using support::WriteWholeFile;

// The process's own initialises once only.
class OwnConfig : public ConfigManager {};

class CommonUtilConfigTest : public testing::Test {
 protected:
  CommonUtilConfigTest() { support::ResetPlatformDouble(); }

  const support::TempDir m_dir;
  const std::string m_file = m_dir.File("config.txt");
  OwnConfig m_config;
};

TEST_F(CommonUtilConfigTest, InitialisesOnceAndKeepsTheFirstOfAKey) {
  EXPECT_EQ(m_config.readConfig(), 1);
  EXPECT_EQ(m_config.InitConfig(m_dir.Path() + "/"), 0);
  EXPECT_EQ(support::ReadWholeFile(m_file), "") << "made where it was missing";
  WriteWholeFile(m_file, "a=1\n");
  EXPECT_EQ(m_config.InitConfig(m_dir.Path()), 1);
  EXPECT_EQ(support::CountLog("has inited config!", kWarning), 1);
  EXPECT_TRUE(m_config.GetConfigs().empty());
  EXPECT_EQ(m_config.readConfig(), 0);
  const std::string content = "a=2\nb=x=y\r\nno sign\n=\n";
  WriteWholeFile(m_file, content);
  EXPECT_EQ(m_config.readConfig(), 0);
  EXPECT_EQ(m_config.GetConfigs(), (Settings{{"a", "1"}, {"b", "x=y\r"}, {"", ""}}));
  EXPECT_EQ(m_config.GetConfig("c"), "");
  EXPECT_EQ(support::ReadWholeFile(m_file), content);
}

TEST_F(CommonUtilConfigTest, WhatCannotBeOpenedYieldsNothingAndIsNoFailure) {
  std::filesystem::create_directories(m_dir.File("directory/config.txt"));
  WriteWholeFile(m_file, "first=1\n");
  PRAX_Ref_FailNext(PRAX_REF_FOPEN, 1, EACCES);
  for (const std::string& place : {m_dir.Path(), m_dir.File("missing"), m_dir.File("directory")}) {
    OwnConfig config;
    EXPECT_EQ(config.InitConfig(place), 0);
    EXPECT_TRUE(config.GetConfigs().empty()) << place;
  }
}

}  // namespace
}  // namespace commonutil
