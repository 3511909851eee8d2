#include "zel_platform/logger.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <filesystem>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logger/LogFile.h"
#include "logger/LogModules.h"
#include "logger/SensitiveWords.h"
#include "logger/logger_ref.h"
#include "support/Child.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

constexpr char kModule[] = "native_sdk";
constexpr int kPlentyKb = 5120;

LogStream Line(const char* module = kModule, int level = LOGGER_LEVEL_INFO) {
  return LogStream::GetLogStream(module, level, 0, "file", "function", 7);
}

Strings LinesOf(const std::string& path) {
  std::istringstream content(support::ReadWholeFile(path));
  Strings lines;
  for (std::string line; std::getline(content, line);) lines.push_back(line);
  return lines;
}

class LoggerTest : public testing::Test {
 protected:
  LoggerTest() { logger_ref_reset(); }
  ~LoggerTest() override { logger_ref_reset(); }

  void OpenLog(int level = LOGGER_LEVEL_DEBUG) {
    ASSERT_EQ(LogStream::InitLog(kModule, m_file.c_str(), kPlentyKb, 2, level), 0);
  }
  // The lines of the log without the header of Line.
  Strings Messages() const {
    const std::string headerEnd = " I [native_sdk] [file function:7] ";
    Strings messages = LinesOf(m_file);
    for (std::string& line : messages) line.erase(0, line.find(headerEnd) + headerEnd.size());
    return messages;
  }

  support::TempDir m_dir;
  const std::string m_file = m_dir.File("native_sdk.txt");
};

TEST_F(LoggerTest, WritesOneLineWithHeaderForEachStreamAndCallUpToTheLevel) {
  OpenLog(LOGGER_LEVEL_WARNING);
  LogStream::AddSensitiveWord("hidden");
  LogStream::AddSensitiveWord("");
  LogStream::GetLogStream(kModule, LOGGER_LEVEL_WARNING, 1, "commonutil/hidden", "f", 42) << "text";
  LogStream::GetLogStream(kModule, LOGGER_LEVEL_ERROR, 0, nullptr, nullptr, 0);
  Line(kModule, LOGGER_LEVEL_INFO) << "beyond the level";
  Line("another_module", LOGGER_LEVEL_ERROR) << "elsewhere";
  const std::string longText(5000, 'x');
  LogOneLog_Write_EX(kModule, LOGGER_LEVEL_ERROR, "Caller", "%s %d %s", longText.c_str(), 3,
                     "hidden\n%s");
  Strings lines = LinesOf(m_file);
  for (std::string& line : lines) {
    ASSERT_GT(line.size(), 23U);
    std::replace_if(line.begin(), line.begin() + 23, ::isdigit, '0');
  }
  const std::string start = "0000-00-00 00:00:00.000 " + std::to_string(::gettid());
  EXPECT_EQ(lines, (Strings{start + " W [native_sdk] [commonutil/hidden f:42] text",
                            start + " E [native_sdk] [ :0] ",
                            start + " E [native_sdk] [ Caller:0] " + longText + " 3 ***\\x0A%s"}));
}

TEST_F(LoggerTest, PrintsValuesEscapesControlBytesAndHidesWordsAndUserParts) {
  OpenLog();
  LogStream::AddSensitiveWord("s3cret4");
  Line() << static_cast<const char*>(nullptr) << std::string("s") << 'c' << true << false << " "
         << -1 << " " << 4294967295U << " " << -9000000000L << " " << 18446744073709551615UL << " "
         << -5LL << " " << 7ULL << " " << 0.1 << " " << 1e20 << " "
         << reinterpret_cast<const void*>(0xAB);
  Line() << "a\r\nforged\x1b[0m\x7f\ttab" << std::string(1, '\0') << "\xff\xc3(";
  const char* const secret = "s3";
  Line() << "key=" << secret << "cret" << 4 << ";";
  Line() << "url=http://user:pa@ss@host:80/x, next https://t@h";
  Line() << "http://host/path?mail=a@b and {\"u\":\"ftp://h\",\"m\":\"a@b\"} ://@";
  EXPECT_EQ(Messages(),
            (Strings{"sc10 -1 4294967295 -9000000000 18446744073709551615 -5 7 0.1 1e+20 0xab",
                     "a\\x0D\\x0Aforged\\x1B[0m\\x7F\ttab\\x00\xff\xc3(", "key=***;",
                     "url=http://***@host:80/x, next https://***@h",
                     "http://host/path?mail=a@b and {\"u\":\"ftp://h\",\"m\":\"a@b\"} ://@"}));
  EXPECT_EQ(LogStream::FilterWord("", 4) + LogStream::FilterWord("abc", 4), "***");
  EXPECT_EQ(LogStream::FilterWord("abcd", 4), "a***");
  EXPECT_EQ(LogStream::FilterWord("abcdefghijklmn", 4), "ab*********lmn");
}

TEST(SensitiveWordsTest, HidesExactlyTheBytesThatSomeWordCovers) {
  std::mt19937 random(7);
  const auto randomText = [&](std::size_t length) {
    std::string text;
    while (text.size() < length) text += static_cast<char>('a' + random() % 3);
    return text;
  };
  for (int round = 0; round < 3000; ++round) {
    SensitiveWords words;
    Strings registered;
    for (auto i = random() % 5; i > 0; --i) registered.push_back(randomText(1 + random() % 6));
    for (const std::string& word : registered) words.Add(word);
    const std::string text = randomText(random() % 30);
    std::string masked, expected;
    for (std::size_t i = 0, end = 0; i < text.size(); ++i) {
      std::size_t reach = 0;  // where the longest word from here ends
      for (const std::string& word : registered) {
        if (text.compare(i, word.size(), word) == 0) reach = std::max(reach, i + word.size());
      }
      if (reach > 0 && i >= end) expected += "***";
      end = std::max(end, reach);
      if (i >= end) expected += text[i];
    }
    words.AppendMasked(text, SensitiveWords::Controls::kKeep, &masked);
    ASSERT_EQ(masked, expected) << text;
  }
}

TEST_F(LoggerTest, KeepsTheLastLinesOfAModuleWithoutAFileAndWritesThemWhenItOpens) {
  LogStream::AddSensitiveWord("early-secret");
  Line() << "first early-secret";
  Line(kModule, LOGGER_LEVEL_DEBUG) << "debug";
  OpenLog();
  Line() << "second";
  LogStream::UnInitLog(kModule);
  EXPECT_EQ(Messages(), (Strings{"first ***", "second"}));
  for (std::size_t i = 0; i < LogModule::kKeptLines + 3; ++i) Line() << i;
  Line() << std::string(LogModule::kKeptBytes, 'x');
  OpenLog();
  const Strings messages = Messages();
  ASSERT_EQ(messages.size(), 2 + LogModule::kKeptLines);
  EXPECT_EQ(messages[2], "3");
  LogStream::UnInitLog(kModule);
  for (int i = 0; i < 10; ++i) Line() << std::string(LogModule::kKeptBytes / 4, 'y');
  OpenLog();
  EXPECT_EQ(Messages().size(), messages.size() + 3) << "three of them fit with headers";
}

TEST_F(LoggerTest, RefusesUnusableFilesAndKeepsTheLines) {
  OpenLog();
  ASSERT_EQ(::mkfifo(m_dir.File("pipe").c_str(), 0600), 0);
  for (const std::string& unusable :
       {std::string(), m_dir.Path(), m_dir.File("pipe"), m_dir.File("no/log.txt"),
        m_dir.File(std::string(300, 'n'))}) {
    EXPECT_NE(LogStream::InitLog(kModule, unusable.c_str(), 1, 1, 2), 0) << unusable;
    Line() << unusable.size();
  }
  EXPECT_NE(LogStream::InitLog(kModule, nullptr, 1, 1, 2), 0);
  EXPECT_TRUE(Messages().empty());
  OpenLog();
  EXPECT_EQ(Messages().size(), 5U);
}

TEST_F(LoggerTest, LogsFromTheDestructorsOfThreadLocalObjects) {
  OpenLog();
  struct LastWords {
    std::string text;
    ~LastWords() { Line() << text; }
  };
  std::thread([] {
    thread_local LastWords words;
    words.text = "end of thread";
    Line() << "begin of thread";
  }).join();
  EXPECT_EQ(Messages(), (Strings{"begin of thread", "end of thread"}));
}

TEST_F(LoggerTest, NeverTearsLinesOfManyThreads) {
  OpenLog();
  std::multiset<std::string> expected;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 400; ++i) expected.insert(std::to_string(t) + " line " + std::to_string(i));
    threads.emplace_back([t, this] {
      for (int i = 0; i < 400; ++i) {
        Line() << t << " line " << i;
        if (i % 100 == 0) LogStream::AddSensitiveWord("unused" + std::to_string(t * 1000 + i));
        if (i % 150 == 0) OpenLog();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const Strings messages = Messages();
  EXPECT_EQ(std::multiset<std::string>(messages.begin(), messages.end()), expected);
}

TEST_F(LoggerTest, RotatesAtTheSizeAndKeepsTheOldFilesAskedFor) {
  for (const int oldFiles : {2, 0}) {
    ASSERT_EQ(LogStream::InitLog(kModule, m_file.c_str(), 1, oldFiles, LOGGER_LEVEL_INFO), 0);
    for (int i = 0; i < 100; ++i) Line() << std::string(100, '.') << i;
    std::size_t next = 100;
    for (const char* name : {"native_sdk.txt", "native_sdk.1.txt", "native_sdk.2.txt"}) {
      if (!fs::exists(m_dir.File(name))) continue;
      EXPECT_LE(fs::file_size(m_dir.File(name)), 1024U);
      Strings lines = LinesOf(m_dir.File(name));
      for (; !lines.empty(); lines.pop_back()) {
        EXPECT_NE(lines.back().find("." + std::to_string(--next)), std::string::npos);
      }
      fs::remove(m_dir.File(name));
    }
    EXPECT_TRUE(fs::is_empty(m_dir.Path()));
    EXPECT_LE(next, oldFiles == 0 ? 99U : 89U) << "two full files hold five lines each";
  }
}

TEST_F(LoggerTest, WritesTheLinesOfAVanishedDirectoryOnceItIsBack) {
  const std::string directory = m_dir.File("logs"), file = directory + "/log";
  fs::create_directory(directory);
  ASSERT_EQ(LogStream::InitLog(kModule, file.c_str(), kPlentyKb, 1, LOGGER_LEVEL_INFO), 0);
  fs::remove_all(directory);
  Line() << "meanwhile";
  fs::create_directory(directory);
  Line() << "again";
  EXPECT_EQ(LinesOf(file).size(), 2U);
  const auto forbidden = fs::perms::others_all | fs::perms::group_write;
  EXPECT_EQ(fs::status(file).permissions() & forbidden, fs::perms::none);
}

class LogFileTest : public testing::Test {
 protected:
  support::TempDir m_dir;
  const std::string m_path = m_dir.File("log.txt");
  const std::string m_a = std::string(900, 'a'), m_b = std::string(200, 'b');
};

// What another writer adds counts for the size, and a writer that still holds a file which another
// one has rotated must not rotate the new one.
TEST_F(LogFileTest, LooksAtThePathAndTheSizeAgainBeforeItRotates) {
  LogFile first(m_path, 1, 5);
  LogFile second(m_path, 1, 5);
  ASSERT_TRUE(first.Open() && second.Open());
  ASSERT_TRUE(second.Append(m_a + "\n", 1));
  ASSERT_TRUE(first.Append(m_b + "\n", 1));
  ASSERT_TRUE(second.Append(m_b + "\n", 1));
  EXPECT_EQ(LinesOf(m_path), (Strings{m_b, m_b}));
  EXPECT_FALSE(fs::exists(m_dir.File("log.2.txt")));
}

// It must not grow for ever; the next lines go on in it.
TEST_F(LogFileTest, EmptiesTheFileWhenItCannotBeRenamed) {
  fs::create_directories(m_dir.File("log.1.txt/in the way"));
  LogFile file(m_path, 1, 1);
  ASSERT_TRUE(file.Open());
  for (const std::string& line : {m_a, m_b, m_b}) ASSERT_TRUE(file.Append(line + "\n", 1));
  EXPECT_EQ(LinesOf(m_path), (Strings{m_b, m_b}));
}

TEST_F(LogFileTest, LosesNoLineWhenTwoProcessesRotateTheSameFile) {
  const auto text = [](char who, int i) { return who + std::to_string(i) + std::string(60, '.'); };
  const auto writeLines = [&](char who) {
    LogFile file(m_path, 4, 1000);
    bool written = file.Open();
    for (int i = 0; written && i < 1500; ++i) written = file.Append(text(who, i) + "\n", i);
    return written;
  };
  const pid_t child = ::fork();
  if (child == 0) ::_exit(writeLines('c') ? 0 : 1);
  EXPECT_TRUE(writeLines('p'));
  EXPECT_EQ(support::WaitFor(child), 0);
  std::multiset<std::string> expected, found;
  for (int i = 0; i < 1500; ++i) expected.insert({text('p', i), text('c', i)});
  for (const auto& entry : fs::directory_iterator(m_dir.Path())) {
    for (const std::string& line : LinesOf(entry.path())) found.insert(line);
  }
  EXPECT_EQ(found, expected);
}

TEST_F(LogFileTest, BeginsAFreshLineAfterADiskThatWasFull) {
  EXPECT_TRUE(support::InChild([&] {
    (void)std::signal(SIGXFSZ, SIG_IGN);
    LogFile file(m_path, kPlentyKb, 1);
    const rlimit full{10, RLIM_INFINITY}, free{RLIM_INFINITY, RLIM_INFINITY};
    return file.Open() && ::setrlimit(RLIMIT_FSIZE, &full) == 0 &&
           !file.Append("does not fit\n", 1) && !file.Append("nor this\n", 1) &&
           ::setrlimit(RLIMIT_FSIZE, &free) == 0 && file.Append("whole\n", 1);
  }));
  EXPECT_EQ(LinesOf(m_path), (Strings{"does not f", "whole"}));
}

}  // namespace
