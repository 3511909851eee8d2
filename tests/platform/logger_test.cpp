#include "zel_platform/logger.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

constexpr char kModule[] = "native_sdk";
constexpr int kPlentyKb = 5120;

LogStream Line(const char* module = kModule, int level = LOGGER_LEVEL_INFO) {
  return LogStream::GetLogStream(module, level, 0, "file", "function", 7);
}

std::vector<std::string> LinesOf(const std::string& path) {
  std::istringstream content(support::ReadWholeFile(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(content, line);) lines.push_back(line);
  return lines;
}

// The messages of a log file, without their headers.
std::vector<std::string> MessagesOf(const std::string& path) {
  std::vector<std::string> messages;
  for (const std::string& line : LinesOf(path)) {
    const std::string marker = ":7] ";
    const std::size_t header = line.find(marker);
    messages.push_back(header == std::string::npos ? "no header: " + line
                                                   : line.substr(header + marker.size()));
  }
  return messages;
}

// The line with every digit of its time stamp as 0.
std::string WithoutTime(std::string line) {
  constexpr std::size_t kTimeLength = 23;
  for (std::size_t i = 0; i < std::min(kTimeLength, line.size()); ++i) {
    if (line[i] >= '0' && line[i] <= '9') line[i] = '0';
  }
  return line;
}

class LoggerTest : public testing::Test {
 protected:
  void SetUp() override { logger_ref_reset(); }
  void TearDown() override { logger_ref_reset(); }

  void OpenLog(int level = LOGGER_LEVEL_DEBUG) {
    ASSERT_EQ(LogStream::InitLog(kModule, m_file.c_str(), kPlentyKb, 2, level), 0);
  }
  std::vector<std::string> Messages() const { return MessagesOf(m_file); }

  support::TempDir m_dir;
  const std::string m_file = m_dir.File("native_sdk.txt");
};

using Strings = std::vector<std::string>;

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
  for (std::string& line : lines) line = WithoutTime(line);
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
  Line() << "a\r\n2031-01-01 forged\x1b[0m\x7f\ttab" << std::string(1, '\0') << "\xff\xc3(";
  Line() << "key="
         << "s3"
         << "cret" << 4 << ";";
  {
    LogStream line = Line();
    line << "late-word";
    LogStream::AddSensitiveWord("late-word");
  }
  Line() << "url=http://user:pa@ss@host:80/x, next https://t@h";
  Line() << "http://host/path?mail=a@b and {\"u\":\"ftp://h\",\"m\":\"a@b\"} ://@";
  EXPECT_EQ(Messages(),
            (Strings{"sc10 -1 4294967295 -9000000000 18446744073709551615 -5 7 0.1 1e+20 0xab",
                     "a\\x0D\\x0A2031-01-01 forged\\x1B[0m\\x7F\ttab\\x00\xff\xc3(", "key=***;",
                     "***", "url=http://***@host:80/x, next https://***@h",
                     "http://host/path?mail=a@b and {\"u\":\"ftp://h\",\"m\":\"a@b\"} ://@"}));

  for (const auto& [word, filtered] :
       std::vector<std::pair<std::string, std::string>>{{"", ""},
                                                        {"abc", "***"},
                                                        {"abcd", "a***"},
                                                        {"abcde", "a****"},
                                                        {"abcdef", "a****f"},
                                                        {"abcdefghijklm", "a***********m"},
                                                        {"abcdefghijklmn", "ab*********lmn"}}) {
    EXPECT_EQ(LogStream::FilterWord(word, 4), filtered);
  }
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
    std::set<std::string> registered;
    for (auto i = random() % 5; i > 0; --i) registered.insert(randomText(1 + random() % 6));
    for (const std::string& word : registered) words.Add(word);
    const std::string text = randomText(random() % 30);

    std::vector<std::size_t> reach(text.size(), 0);  // where the longest word from here ends
    for (std::size_t i = 0; i < text.size(); ++i) {
      for (const std::string& word : registered) {
        if (text.compare(i, word.size(), word) == 0) reach[i] = std::max(reach[i], i + word.size());
      }
    }
    std::string expected;
    for (std::size_t i = 0; i < text.size();) {
      if (reach[i] == 0) {
        expected += text[i++];
        continue;
      }
      std::size_t end = reach[i];
      for (; i < end; ++i) end = std::max(end, reach[i]);
      expected += "***";
    }

    std::string masked;
    words.AppendMasked(text, SensitiveWords::Controls::kKeep, &masked);
    ASSERT_EQ(masked, expected) << text;
  }
}

TEST_F(LoggerTest, WritesTheKeptLinesOfAModuleWhenItOpens) {
  LogStream::AddSensitiveWord("early-secret");
  Line() << "first early-secret";
  Line(kModule, LOGGER_LEVEL_DEBUG) << "debug";
  OpenLog();
  Line() << "second";
  LogStream::UnInitLog(kModule);
  Line() << "between";
  EXPECT_EQ(Messages(), (Strings{"first ***", "second"}));
  OpenLog();
  EXPECT_EQ(Messages(), (Strings{"first ***", "second", "between"}));
}

TEST_F(LoggerTest, KeepsOnlyTheLastLinesOfAModuleWithoutAFile) {
  for (std::size_t i = 0; i < LogModule::kKeptLines + 3; ++i) Line() << i;
  Line() << std::string(LogModule::kKeptBytes, 'x');
  OpenLog();
  const Strings messages = Messages();
  ASSERT_EQ(messages.size(), LogModule::kKeptLines);
  EXPECT_EQ(messages.front(), "3");

  LogStream::UnInitLog(kModule);
  for (int i = 0; i < 10; ++i) Line() << std::string(LogModule::kKeptBytes / 4, 'y');
  OpenLog();
  EXPECT_EQ(Messages().size(), LogModule::kKeptLines + 3);  // three of them fit with headers
}

TEST_F(LoggerTest, RefusesUnusableFilesAndKeepsTheLines) {
  OpenLog();
  const std::string pipe = m_dir.File("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& unusable : {std::string(), m_dir.Path(), pipe, m_dir.File("no/log.txt"),
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
  constexpr int kThreads = 4;
  constexpr int kLinesEach = 400;
  OpenLog();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, this] {
      for (int i = 0; i < kLinesEach; ++i) {
        Line() << "thread " << t << " line " << i << " word" << i % 50 << ".";
        if (i % 100 == 0) LogStream::AddSensitiveWord("unused" + std::to_string(t * 1000 + i));
        if (i % 150 == 0) OpenLog();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::multiset<std::string> expected;
  for (int i = 0; i < kThreads * kLinesEach; ++i) {
    expected.insert("thread " + std::to_string(i / kLinesEach) + " line " +
                    std::to_string(i % kLinesEach) + " word" + std::to_string(i % 50) + ".");
  }
  const Strings messages = Messages();
  EXPECT_EQ(std::multiset<std::string>(messages.begin(), messages.end()), expected);
}

TEST_F(LoggerTest, RotatesAtTheSizeAndKeepsTheOldFilesAskedFor) {
  for (const int oldFiles : {2, 0}) {
    ASSERT_EQ(LogStream::InitLog(kModule, m_file.c_str(), 1, oldFiles, LOGGER_LEVEL_INFO), 0);
    for (int i = 0; i < 100; ++i) Line() << "number " << i << std::string(100, '.');
    Strings all;
    for (const char* name : {"native_sdk.2.txt", "native_sdk.1.txt", "native_sdk.txt"}) {
      if (!std::filesystem::exists(m_dir.File(name))) continue;
      EXPECT_LE(std::filesystem::file_size(m_dir.File(name)), 1024U);
      for (const std::string& line : LinesOf(m_dir.File(name))) all.push_back(line);
      std::filesystem::remove(m_dir.File(name));
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
    ASSERT_GE(all.size(), oldFiles == 0 ? 1U : 11U);  // two full files hold five lines each
    for (std::size_t i = 0; i < all.size(); ++i) {
      const std::string wanted = "number " + std::to_string(100 - all.size() + i) + ".";
      EXPECT_NE(all[i].find(wanted), std::string::npos) << all[i];
    }
  }
}

TEST_F(LoggerTest, WritesTheLinesOfAVanishedDirectoryOnceItIsBack) {
  const std::string directory = m_dir.File("logs"), file = directory + "/native_sdk.txt";
  std::filesystem::create_directory(directory);
  ASSERT_EQ(LogStream::InitLog(kModule, file.c_str(), kPlentyKb, 1, LOGGER_LEVEL_INFO), 0);
  std::filesystem::remove_all(directory);
  Line() << "meanwhile";
  std::filesystem::create_directory(directory);
  Line() << "again";
  EXPECT_EQ(MessagesOf(file), (Strings{"meanwhile", "again"}));
}

class LogFileTest : public testing::Test {
 protected:
  support::TempDir m_dir;
  const std::string m_path = m_dir.File("log.txt");
};

TEST_F(LogFileTest, OpensThePathAgainAfterARemovalARenameOrALostDirectory) {
  const std::string directory = m_dir.File("dir.d"), path = directory + "/log";
  std::filesystem::create_directory(directory);
  LogFile file(path, 1, 1);
  ASSERT_TRUE(file.Open());
  ASSERT_TRUE(file.Append("one\n", 1));
  std::filesystem::rename(path, m_dir.File("moved.txt"));
  ASSERT_TRUE(file.Append("two\n", 2));
  EXPECT_EQ(LinesOf(m_dir.File("moved.txt")), Strings{"one"});
  EXPECT_EQ(LinesOf(path), Strings{"two"});
  std::filesystem::remove_all(directory);
  EXPECT_FALSE(file.Append("lost\n", 3));
  std::filesystem::create_directory(directory);
  ASSERT_TRUE(file.Append(std::string(1000, 'a') + "\n", 3));
  const auto forbidden = std::filesystem::perms::others_all | std::filesystem::perms::group_write;
  EXPECT_EQ(std::filesystem::status(path).permissions() & forbidden, std::filesystem::perms::none);
  ASSERT_TRUE(file.Append(std::string(1000, 'b') + "\n", 4));
  EXPECT_EQ(LinesOf(directory + "/log.1"), Strings{std::string(1000, 'a')});
}

// What another writer adds counts for the size, and a writer that still holds a file which another
// one has rotated must not rotate the new one.
TEST_F(LogFileTest, LooksAtThePathAndTheSizeAgainBeforeItRotates) {
  LogFile first(m_path, 1, 5);
  LogFile second(m_path, 1, 5);
  ASSERT_TRUE(first.Open());
  ASSERT_TRUE(second.Open());
  ASSERT_TRUE(second.Append(std::string(900, 'b') + "\n", 1));
  ASSERT_TRUE(first.Append(std::string(200, 'a') + "\n", 1));
  ASSERT_TRUE(second.Append(std::string(200, 'c') + "\n", 1));
  EXPECT_EQ(LinesOf(m_path), (Strings{std::string(200, 'a'), std::string(200, 'c')}));
  EXPECT_FALSE(std::filesystem::exists(m_dir.File("log.2.txt")));
}

// It must not grow for ever; the next lines go on in it.
TEST_F(LogFileTest, EmptiesTheFileWhenItCannotBeRenamed) {
  std::filesystem::create_directories(m_dir.File("log.1.txt/in the way"));
  LogFile file(m_path, 1, 1);
  ASSERT_TRUE(file.Open());
  ASSERT_TRUE(file.Append(std::string(1000, 'a') + "\n", 1));
  ASSERT_TRUE(file.Append(std::string(100, 'b') + "\n", 1));
  ASSERT_TRUE(file.Append("c\n", 2));
  EXPECT_EQ(LinesOf(m_path), (Strings{std::string(100, 'b'), "c"}));
}

TEST_F(LogFileTest, LosesNoLineWhenTwoProcessesRotateTheSameFile) {
  constexpr int kLinesEach = 1500;
  const auto text = [](const char* who, int i) {
    return who + std::to_string(i) + std::string(60, '.');
  };
  const auto writeLines = [&](const char* who) {
    LogFile file(m_path, 4, 1000);
    bool written = file.Open();
    for (int i = 0; written && i < kLinesEach; ++i) written = file.Append(text(who, i) + "\n", i);
    return written;
  };
  const pid_t child = ::fork();
  if (child == 0) ::_exit(writeLines("child ") ? 0 : 1);
  EXPECT_TRUE(writeLines("parent "));
  EXPECT_EQ(support::WaitFor(child), 0);

  std::multiset<std::string> expected, found;
  for (int i = 0; i < kLinesEach; ++i) {
    for (const char* who : {"parent ", "child "}) expected.insert(text(who, i));
  }
  for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path())) {
    for (const std::string& line : LinesOf(entry.path())) found.insert(line);
  }
  EXPECT_EQ(found, expected);
}

TEST_F(LogFileTest, BeginsAFreshLineAfterADiskThatWasFull) {
  const auto fillAndGoOn = [&] {
    (void)std::signal(SIGXFSZ, SIG_IGN);
    LogFile file(m_path, kPlentyKb, 1);
    rlimit limit{};
    if (!file.Open() || ::getrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
    const rlim_t unlimited = limit.rlim_cur;
    limit.rlim_cur = 10;
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
    const bool refused = !file.Append("does not fit\n", 1) && !file.Append("nor this\n", 1);
    limit.rlim_cur = unlimited;
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 && refused && file.Append("whole\n", 1);
  };
  EXPECT_TRUE(support::InChild(fillAndGoOn));
  EXPECT_EQ(LinesOf(m_path), (Strings{"does not f", "whole"}));
}

}  // namespace
