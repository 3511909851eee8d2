#include "util/LogCleaner.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <json/value.h>

#include "prax/prax_ref.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/LogBusiness.h"
#include "util/PublicUtil.h"

namespace commonutil {
namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

constexpr std::time_t kNow = 1700000000;
constexpr std::time_t kDay = 86400;
constexpr std::time_t kOld = 99 * kDay;
constexpr char kBegin[] = "DoAsyncDelete begin------------------------- ";
constexpr char kEnd[] = "DoAsyncDelete end------------------------- ";

void SetAge(const std::string& path, std::time_t age) {
  const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

class LogCleanerTest : public ::testing::Test {
 protected:
  LogCleanerTest() {
    support::ResetPlatformDouble();
    PRAX_Ref_SetClock([] { return static_cast<unsigned long long>(kNow) * 1000; });
  }
  ~LogCleanerTest() override {
    LogBusiness::InitConfig("", 0);
    support::ResetPlatformDouble();
  }

  // A file of the directory, with every directory on the way to it.
  void Write(const std::string& name, std::time_t age = kOld) {
    fs::create_directories(fs::path(m_dir.File(name)).parent_path());
    support::WriteWholeFile(m_dir.File(name), "x");
    SetAge(m_dir.File(name), age);
  }

  // Everything below the directory but the directories.
  Names Files() const {
    Names names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(m_dir.Path())) {
      if (!entry.is_symlink() && entry.is_directory()) continue;
      names.insert(entry.path().lexically_relative(m_dir.Path()).string());
    }
    return names;
  }

  void Start(const std::string& directory, unsigned long days = 3, int type = 0) {
    LogBusiness::InitConfig(directory, days);
    LogBusiness::DoAsyncDelete(static_cast<LogBusiness::BizType>(type));
  }
  static void AwaitEnd() {
    while (LogBusiness::IsCleaning()) std::this_thread::yield();
  }
  void Clean(unsigned long days = 3, int type = 0) {
    Start(m_dir.Path(), days, type);
    AwaitEnd();
  }

  support::TempDir m_dir;
};

TEST_F(LogCleanerTest, RemovesOldFilesOfAllDepthsWhateverTheirNames) {
  std::string deep = "a/b/c/";
  for (int level = 0; level < 300; ++level) deep += "directory/";
  Write(deep + "old");
  Write(".hidden.txt");
  Write("a/new.txt", kDay);
  Write("a/just old.txt", 3 * kDay + 1);
  Write("a/just kept.txt", 3 * kDay);
  Clean();
  EXPECT_EQ(Files(), (Names{"a/new.txt", "a/just kept.txt"}));
  EXPECT_TRUE(fs::is_directory(m_dir.File("a/b/c")));
  EXPECT_EQ(LogBusiness::DeletedFiles(), 3);
}

TEST_F(LogCleanerTest, DaysAreClampedAndReportedBetweenTheTwoLinesAndZeroDoesNothing) {
  const struct {
    unsigned long days;
    int type;
    int kept;
    const char* name;  // null: nothing is done
  } cases[] = {{0, 0, 0, nullptr},
               {1, 0, 3, "Del_When_Login"},
               {7, 1, 7, "Del_When_ConfEnd"},
               {~0UL, 7, 30, "Del_When_ConfEnd"}};
  for (const auto& c : cases) {
    support::ClearLog();
    support::ClearTrack();
    Write("kept", c.kept * kDay);
    Write("gone", c.kept * kDay + 1);
    Clean(c.days, c.type);
    if (c.name == nullptr) {
      EXPECT_EQ(Files().size(), 2U);
      EXPECT_TRUE(support::LogTexts().empty());
      continue;
    }
    EXPECT_EQ(Files(), Names{"kept"}) << c.days;
    EXPECT_EQ(LogBusiness::InitBaseTime(), kNow - c.kept * kDay) << c.days;
    EXPECT_EQ(support::LogTexts(), (std::vector<std::string>{kBegin, kEnd}));
    const std::vector<std::string> report = support::TrackCalls().at(0).texts;
    EXPECT_EQ(report.at(0) + report.at(1), "1ut_event_sdk_clean_log");
    Json::Value expected;
    expected["type"] = c.name;
    expected["days"] = c.kept;
    expected["files"] = 1;
    expected["logPath"] = PublicUtil::filterWordGeneral(m_dir.Path());
    EXPECT_EQ(report.at(4), PublicUtil::Json2String(expected));
  }
}

// A second clean-up is dropped: the first is held while it reads the clock for its own start.
TEST_F(LogCleanerTest, ARequestWhileOneRunsIsDropped) {
  bool isNested = false;
  PRAX_Ref_SetClock([&] {
    if (!std::exchange(isNested, true)) {
      EXPECT_TRUE(LogBusiness::IsCleaning());
      LogBusiness::DoAsyncDelete(LogBusiness::kAfterConference);
    }
    return static_cast<unsigned long long>(kNow) * 1000;
  });
  Clean();
  EXPECT_EQ(support::CountLog(kBegin), 1);
  EXPECT_EQ(support::CountTrack("Track_AddUserTrack"), 1);
  Clean();  // and the next one runs
  EXPECT_EQ(support::CountLog(kBegin), 2);
}

TEST_F(LogCleanerTest, WhatFailsIsLeftForTheNextTime) {
  Write("a");
  Write("b");
  PRAX_Ref_FailNext(PRAX_REF_THREAD_CREATE, 1, EAGAIN);
  Clean();
  EXPECT_EQ(Files().size(), 2U);
  EXPECT_EQ(support::CountLog(kEnd), 0);
  PRAX_Ref_FailNext(PRAX_REF_REMOVE, 1, EPERM);
  Clean();
  EXPECT_EQ(LogBusiness::DeletedFiles(), 1);
  EXPECT_EQ(Files().size(), 1U);
  Clean();
  EXPECT_TRUE(Files().empty());
}

TEST_F(LogCleanerTest, NoLinkLeadsOutOfTheDirectory) {
  const support::TempDir outside;
  for (const char* name : {"zel.log", "sdk_call_key_info.txt"}) {
    support::WriteWholeFile(outside.File(name), "x");
    SetAge(outside.File(name), kOld);
  }
  SetAge(outside.Path(), kOld);
  Write("logs/real/old");
  Write("beside");
  const std::pair<std::string, const char*> links[] = {{outside.Path(), "logs/directory"},
                                                       {outside.File("zel.log"), "logs/file"},
                                                       {"..", "logs/up"},
                                                       {"real", "logs/loop"},
                                                       {"nowhere", "logs/dangling"},
                                                       {"logs", "start"},
                                                       {outside.Path(), "rtc"},
                                                       {outside.Path(), "sdk_key_log"}};
  for (const auto& [target, name] : links) fs::create_symlink(target, m_dir.File(name));
  Start(m_dir.File("start"));  // a link may be the starting point
  AwaitEnd();
  LogBusiness::DeleteOldVersionLogFiles(m_dir.Path().c_str());
  EXPECT_TRUE(fs::exists(outside.File("zel.log")));
  EXPECT_TRUE(fs::exists(outside.File("sdk_call_key_info.txt")));
  // The links to what is old went as files do; those to what is new or missing stay.
  EXPECT_EQ(Files(), (Names{"beside", "logs/up", "logs/loop", "logs/dangling", "start", "rtc",
                            "sdk_key_log"}));
}

// The tree goes away under the clean-up; a neighbour of the directory must not suffer.
TEST_F(LogCleanerTest, DirectoriesMayVanishMeanwhile) {
  for (int i = 0; i < 2000; ++i) {
    Write("logs/" + std::to_string(i % 100) + "/" + std::to_string(i));
  }
  Write("neighbour");
  Start(m_dir.File("logs"));
  std::error_code ignored;  // both remove the same entries
  while (fs::exists(m_dir.File("logs"))) fs::remove_all(m_dir.File("logs"), ignored);
  AwaitEnd();
  EXPECT_EQ(Files(), Names{"neighbour"});
  EXPECT_EQ(support::CountLog(kEnd), 1);
}

TEST_F(LogCleanerTest, OldVersionFilesAreRemovedAndNothingElse) {
  const Names left = {
      "home/other.log", "home/zel.txt",        "home/sdk_key_log/other.txt",
      "home/rtc2/b",    "home/client.zel.log", "home/zel.lo",
      "home/ZEL.log",   "homertc/file"};  // and not the name without a separator in between
  for (const std::string home : {"home", "home/"}) {
    for (const std::string& name : left) Write(name, 0);
    for (const char* name :
         {"zel.log", "orb.log.1", "zelclient.log", "orb.txt.logging",
          "sdk_key_log/sdk_call_key_info.txt", "sdk_key_log/sdk_zel_key_info.txt",
          "sdk_key_log/sdk_orb_key_info.txt", "rtc/.a", "rtc/...", "rtc/b"}) {
      Write(std::string("home/") + name, 0);
    }
    fs::create_directory(m_dir.File("home/zel.log.d"));
    LogBusiness::DeleteOldVersionLogFiles(m_dir.File(home).c_str());
    EXPECT_EQ(Files(), left) << home;
    EXPECT_FALSE(fs::exists(m_dir.File("home/rtc")));
    EXPECT_TRUE(fs::exists(m_dir.File("home/zel.log.d")));
  }
  Write("rtc/file");
  Write("rtc/inner/file");
  LogBusiness::DeleteAllFileInThePath(m_dir.File("rtc"));  // stays while there is another in it
  EXPECT_FALSE(fs::exists(m_dir.File("rtc/file")));
  EXPECT_TRUE(fs::exists(m_dir.File("rtc/inner/file")));
}

// No name stands for the root directory by accident.
TEST_F(LogCleanerTest, NothingIsRemovedForDirectoriesThatAreNone) {
  Write("zel.log");
  fs::current_path(m_dir.Path());
  LogBusiness::DeleteOldVersionLogFiles(nullptr);
  LogBusiness::DeleteAllFileInThePath("");
  EXPECT_EQ(LogBusiness::FilterDot(nullptr), 0);
  for (const std::string& directory : {std::string(), m_dir.File("none"), m_dir.File("zel.log")}) {
    LogBusiness::DeleteOldVersionLogFiles(directory.c_str());
    Start(directory);
    EXPECT_FALSE(LogBusiness::IsCleaning());
  }
  EXPECT_EQ(Files(), Names{"zel.log"});
  fs::current_path("/");
}

}  // namespace
}  // namespace commonutil
