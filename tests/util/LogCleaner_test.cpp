#include "util/LogCleaner.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

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

constexpr std::time_t kNow = 1700000000;
constexpr std::time_t kDay = 86400;
constexpr int kInfoLevel = 2;
constexpr char kBegin[] = "DoAsyncDelete begin------------------------- ";
constexpr char kEnd[] = "DoAsyncDelete end------------------------- ";
constexpr std::chrono::seconds kDeadline(60);  // only a hang takes that long

bool WaitForEnd() {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (LogBusiness::IsCleaning()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

void SetWritten(const std::string& path, std::time_t written) {
  const timespec times[2] = {{written, 0}, {written, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

class LogCleanerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    support::ResetPlatformDouble();
    PRAX_Ref_SetClock([] { return static_cast<unsigned long long>(kNow) * 1000; });
  }
  void TearDown() override {
    EXPECT_TRUE(WaitForEnd());
    LogBusiness::InitConfig("", 0);
    support::ResetPlatformDouble();
  }

  // A file of the directory, with every directory on the way to it.
  void Write(const std::string& name, std::time_t age) {
    const std::string path = m_dir.File(name);
    fs::create_directories(fs::path(path).parent_path());
    support::WriteWholeFile(path, "x");
    SetWritten(path, kNow - age);
  }

  // Everything below the directory but the directories.
  std::set<std::string> Files() const {
    std::set<std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(m_dir.Path())) {
      if (entry.is_symlink() || !entry.is_directory()) {
        names.insert(entry.path().lexically_relative(m_dir.Path()).string());
      }
    }
    return names;
  }

  void Clean(unsigned long days, LogBusiness::BizType type = LogBusiness::kAfterLogin) {
    LogBusiness::InitConfig(m_dir.Path(), days);
    LogBusiness::DoAsyncDelete(type);
    ASSERT_TRUE(WaitForEnd());
  }

  support::TempDir m_dir;
};

using Names = std::set<std::string>;

TEST_F(LogCleanerTest, RemovesOldFilesOfAllDepthsWhateverTheirNames) {
  Write("old.txt", 4 * kDay);
  Write(".hidden.txt", 4 * kDay);
  Write("sdkcache.db", 4 * kDay);
  std::string deep = "a/b/c/";
  for (int level = 0; level < 300; ++level) deep += "directory/";
  Write(deep + "old", 4 * kDay);
  Write("a/new.txt", kDay);
  Write("a/just old.txt", 3 * kDay + 1);
  Write("a/just kept.txt", 3 * kDay);
  Clean(3);
  EXPECT_EQ(Files(), (Names{"a/new.txt", "a/just kept.txt"}));
  EXPECT_TRUE(fs::is_directory(m_dir.File("a/b/c")));
  EXPECT_EQ(LogBusiness::DeletedFiles(), 5);
}

TEST_F(LogCleanerTest, DaysAreClampedAndStoredAndZeroDoesNothing) {
  struct Row {
    unsigned long days;
    std::time_t kept;  // 0: all is
  };
  for (const Row& row : {Row{0, 0}, {1, 3}, {3, 3}, {7, 7}, {30, 30}, {90, 30}, {~0UL, 30}}) {
    Write("kept", row.kept * kDay);
    Write("gone", (row.kept == 0 ? 99 : row.kept) * kDay + 1);
    Clean(row.days);
    EXPECT_EQ(Files(), row.kept == 0 ? (Names{"kept", "gone"}) : Names{"kept"}) << row.days;
    EXPECT_EQ(LogBusiness::InitBaseTime(), kNow - row.kept * kDay) << row.days;
  }
  EXPECT_EQ(support::CountLog(kBegin), 6);
}

TEST_F(LogCleanerTest, ReportsBetweenTheTwoLines) {
  Write("a/one", 99 * kDay);
  Write("two", 99 * kDay);
  for (const auto& [type, name] :
       {std::pair(0, "Del_When_Login"), {1, "Del_When_ConfEnd"}, {7, "Del_When_ConfEnd"}}) {
    support::ClearLog();
    support::ClearTrack();
    Clean(90, static_cast<LogBusiness::BizType>(type));
    EXPECT_EQ(support::LogTexts(), (std::vector<std::string>{kBegin, kEnd}));
    EXPECT_EQ(support::CountLog(kBegin, kInfoLevel), 1);
    EXPECT_EQ(support::CountLog(kEnd, kInfoLevel), 1);
    const std::vector<support::TrackCall> calls = support::TrackCalls();
    ASSERT_EQ(calls.size(), 1U);
    ASSERT_EQ(calls[0].texts.size(), 5U);
    EXPECT_EQ(calls[0].texts[0], "1");
    EXPECT_EQ(calls[0].texts[1], "ut_event_sdk_clean_log");
    Json::Value event;
    ASSERT_TRUE(PublicUtil::SafeParseJson(calls[0].texts[4], event));
    EXPECT_EQ(calls[0].texts[4].find('\n'), std::string::npos);
    EXPECT_EQ(event.getMemberNames(), (Json::Value::Members{"days", "files", "logPath", "type"}));
    EXPECT_EQ(event["type"].asString(), name);
    EXPECT_EQ(event["days"].asInt(), 30);
    EXPECT_EQ(event["files"].asInt(), type == 0 ? 2 : 0);
    EXPECT_EQ(event["logPath"].asString(), PublicUtil::filterWordGeneral(m_dir.Path()));
  }
}

// A second clean-up is dropped: the first is held while it reads the clock for its own start.
TEST_F(LogCleanerTest, ARequestWhileOneRunsIsDropped) {
  Write("old", 99 * kDay);
  LogBusiness::InitConfig(m_dir.Path(), 3);
  bool isNested = false;
  PRAX_Ref_SetClock([&] {
    if (!isNested) {
      isNested = true;
      EXPECT_TRUE(LogBusiness::IsCleaning());
      LogBusiness::DoAsyncDelete(LogBusiness::kAfterConference);
    }
    return static_cast<unsigned long long>(kNow) * 1000;
  });
  LogBusiness::DoAsyncDelete(LogBusiness::kAfterLogin);
  ASSERT_TRUE(WaitForEnd());
  EXPECT_EQ(support::CountLog(kBegin), 1);
  EXPECT_EQ(support::CountTrack("Track_AddUserTrack"), 1);

  Clean(3);  // and the next one runs
  EXPECT_EQ(support::CountLog(kBegin), 2);
}

TEST_F(LogCleanerTest, WithoutAThreadTheNextRequestStillRuns) {
  Write("old", 99 * kDay);
  PRAX_Ref_FailNext(PRAX_REF_THREAD_CREATE, 1, EAGAIN);
  Clean(3);
  EXPECT_EQ(Files(), Names{"old"});
  EXPECT_EQ(support::CountLog(kEnd), 0);
  Clean(3);
  EXPECT_TRUE(Files().empty());
}

TEST_F(LogCleanerTest, AFileThatCannotBeRemovedIsNotCounted) {
  Write("a", 99 * kDay);
  Write("b", 99 * kDay);
  PRAX_Ref_FailNext(PRAX_REF_REMOVE, 1, EPERM);
  Clean(3);
  EXPECT_EQ(Files().size(), 1U);
  EXPECT_EQ(LogBusiness::DeletedFiles(), 1);

  Write("old", 99 * kDay);
  Write("new", 0);
  EXPECT_EQ(LogBusiness::DealWithFile(m_dir.File("none")), -1);
  EXPECT_EQ(LogBusiness::DealWithFile(m_dir.File("new")), 0);
  PRAX_Ref_FailNext(PRAX_REF_REMOVE, 1, EPERM);
  EXPECT_EQ(LogBusiness::DealWithFile(m_dir.File("old")), -1);
  EXPECT_EQ(LogBusiness::DealWithFile(m_dir.File("old")), 0);
}

TEST_F(LogCleanerTest, NoLinkLeadsOutOfTheDirectory) {
  const support::TempDir outside;
  const Names secrets = {"zel.log", "sdk_call_key_info.txt"};
  for (const std::string& name : secrets) {
    support::WriteWholeFile(outside.File(name), "x");
    SetWritten(outside.File(name), kNow - 99 * kDay);
  }
  SetWritten(outside.Path(), kNow - 99 * kDay);
  Write("logs/real/old", 99 * kDay);
  Write("beside", 99 * kDay);
  for (const auto& [target, name] :
       std::vector<std::pair<std::string, const char*>>{{outside.Path(), "logs/directory"},
                                                        {outside.File("zel.log"), "logs/file"},
                                                        {"..", "logs/up"},
                                                        {"real", "logs/loop"},
                                                        {"nowhere", "logs/dangling"},
                                                        {"logs", "start"},
                                                        {outside.Path(), "rtc"},
                                                        {outside.Path(), "sdk_key_log"}}) {
    fs::create_symlink(target, m_dir.File(name));
  }
  LogBusiness::InitConfig(m_dir.File("start"), 3);  // a link may be the starting point
  LogBusiness::DoAsyncDelete(LogBusiness::kAfterLogin);
  ASSERT_TRUE(WaitForEnd());
  LogBusiness::DeleteOldVersionLogFiles(m_dir.Path().c_str());
  for (const std::string& name : secrets) EXPECT_TRUE(fs::exists(outside.File(name)));
  // The links to what is old went as files do; those to what is new or missing stay.
  EXPECT_EQ(Files(), (Names{"beside", "logs/up", "logs/loop", "logs/dangling", "start", "rtc",
                            "sdk_key_log"}));
}

// The tree goes away under the clean-up; a neighbour of the directory must not suffer.
TEST_F(LogCleanerTest, DirectoriesMayVanishMeanwhile) {
  for (int i = 0; i < 2000; ++i) {
    Write("logs/" + std::to_string(i % 100) + "/" + std::to_string(i), 99 * kDay);
  }
  Write("neighbour", 99 * kDay);
  LogBusiness::InitConfig(m_dir.File("logs"), 3);
  LogBusiness::DoAsyncDelete(LogBusiness::kAfterLogin);
  std::error_code ignored;  // both remove the same entries
  while (fs::exists(m_dir.File("logs"))) fs::remove_all(m_dir.File("logs"), ignored);
  ASSERT_TRUE(WaitForEnd());
  EXPECT_EQ(Files(), Names{"neighbour"});
  EXPECT_EQ(support::CountLog(kEnd), 1);
}

TEST_F(LogCleanerTest, OldVersionFilesAreRemovedAndNothingElse) {
  const Names left = {"other.log", "zel.txt",        "sdk_key_log/other.txt",
                      "rtc2/b",    "client.zel.log", "zel",
                      "ze",        "zel.lo",         "ZEL.log"};
  const auto fill = [&](const std::string& home) {
    for (const std::string& name : left) Write(home + "/" + name, 0);
    for (const char* name :
         {"zel.log", "orb.log.1", "zelclient.log", "orb.txt.logging",
          "sdk_key_log/sdk_call_key_info.txt", "sdk_key_log/sdk_zel_key_info.txt",
          "sdk_key_log/sdk_orb_key_info.txt", "rtc/.a", "rtc/...", "rtc/b"}) {
      Write(home + "/" + name, 0);
    }
    fs::create_directory(m_dir.File(home + "/zel.log.d"));
  };
  Names expected = {"ahomertc/file"};
  Write("ahomertc/file", 0);  // the name without a separator in between
  for (const char* end : {"", "/"}) {
    const std::string home = "ahome" + std::to_string(std::strlen(end));
    fill(home);
    LogBusiness::DeleteOldVersionLogFiles((m_dir.File(home) + end).c_str());
    for (const std::string& name : left) expected.insert(home + "/" + name);
    EXPECT_FALSE(fs::exists(m_dir.File(home + "/rtc")));
    EXPECT_TRUE(fs::exists(m_dir.File(home + "/zel.log.d")));
  }
  EXPECT_EQ(Files(), expected);
}

TEST_F(LogCleanerTest, ADirectoryStaysWhileThereIsAnotherInIt) {
  Write("rtc/file", 0);
  Write("rtc/inner/file", 0);
  LogBusiness::DeleteOldVersionLogFiles(m_dir.Path().c_str());
  EXPECT_EQ(Files(), Names{"rtc/inner/file"});
  LogBusiness::DeleteAllFileInThePath(m_dir.File("rtc/inner"));  // no "/" at the end
  EXPECT_FALSE(fs::exists(m_dir.File("rtc/inner")));
  EXPECT_TRUE(fs::exists(m_dir.File("rtc")));
}

// No name stands for the root directory by accident.
TEST_F(LogCleanerTest, NothingIsRemovedForDirectoriesThatAreNone) {
  Write("zel.log", 99 * kDay);
  fs::current_path(m_dir.Path());
  LogBusiness::DeleteOldVersionLogFiles(nullptr);
  LogBusiness::DeleteAllFileInThePath(m_dir.File("none"));
  for (const std::string& directory : {std::string(), m_dir.File("none"), m_dir.File("zel.log")}) {
    LogBusiness::DeleteOldVersionLogFiles(directory.c_str());
    LogBusiness::InitConfig(directory, 3);
    LogBusiness::DoAsyncDelete(LogBusiness::kAfterLogin);
    EXPECT_FALSE(LogBusiness::IsCleaning());
  }
  EXPECT_EQ(Files(), Names{"zel.log"});
  fs::current_path("/");
}

}  // namespace
}  // namespace commonutil
