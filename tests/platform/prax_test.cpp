#include "zel_platform/prax.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "support/Child.h"
#include "support/TempDir.h"

namespace {

using support::ReadWholeFile;
using support::TempDir;
using support::WriteWholeFile;

constexpr unsigned int kMode = 0640;
constexpr uid_t kNobody = 65534;

class PraxTest : public testing::Test {
 protected:
  void TearDown() override { PRAX_Ref_Reset(); }
};

using PraxThreadTest = PraxTest;

void* StoreTid(void* out) {
  *static_cast<unsigned long*>(out) = PRAX_GetTID();
  return out;
}

std::vector<std::string>& TracedTexts() {
  static std::vector<std::string> texts;
  return texts;
}

void KeepTrace(_PRAX_OS_LOG_LEVEL level, const char* text) {
  TracedTexts().push_back(std::to_string(level) + " " + text);
}

// The attribute asks for a stack that no address space holds, so the start really fails.
TEST_F(PraxThreadTest, AFailedStartLeavesNoHandleAndIsTraced) {
  TracedTexts().clear();
  PRAX_OS_RegDebugTrace(KeepTrace);
  pthread_attr_t hugeStack;
  ASSERT_EQ(pthread_attr_init(&hugeStack), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&hugeStack, std::size_t{1} << 60), 0);
  PRAX_THREAD thread = 77;
  const int error = PRAX_PthreadCreate(&thread, &hugeStack, StoreTid, nullptr);
  pthread_attr_destroy(&hugeStack);

  EXPECT_EQ(error, EAGAIN);
  EXPECT_EQ(thread, 0U);
  EXPECT_EQ(TracedTexts(), std::vector<std::string>{"3 thread start failed, error 11"});
}

// A thread handle is commonly given to the next thread at once; the id must not be.
TEST_F(PraxThreadTest, ThreadsHandTheirResultToTheJoinAndHaveDistinctIds) {
  std::set<unsigned long> ids = {PRAX_GetTID()};
  constexpr int kThreads = 20;
  for (int i = 0; i < kThreads; ++i) {
    unsigned long tid = 0;
    PRAX_THREAD thread = 0;
    void* result = nullptr;
    ASSERT_EQ(PRAX_PthreadCreate(&thread, nullptr, StoreTid, &tid), 0);
    ASSERT_EQ(PRAX_PthreadJoin(thread, &result), 0);
    EXPECT_EQ(result, &tid);
    ids.insert(tid);
  }
  EXPECT_EQ(ids.size(), kThreads + 1U);
  EXPECT_EQ(PRAX_PthreadJoin(PRAX_PthreadSelf(), nullptr), EDEADLK);
  EXPECT_EQ(PRAX_PthreadJoin(0, nullptr), ESRCH);
  EXPECT_EQ(PRAX_PthreadDetach(0), ESRCH);
  std::thread([] {
    char name[32] = "";
    EXPECT_EQ(PRAX_PthreadSetName("CommonUtilService"), 0);
    pthread_getname_np(pthread_self(), name, sizeof(name));
    EXPECT_STREQ(name, "CommonUtilServi");
  }).join();
}

TEST_F(PraxThreadTest, ARecursiveMutexIsFreeAfterAsManyUnlocksAsLocks) {
  PRAX_MUTEX mutex;
  std::memset(&mutex, 0, sizeof(mutex));
  ASSERT_EQ(PRAX_MutexInitRecursive(&mutex), 0);
  EXPECT_EQ(PRAX_MutexLock(&mutex), 0);
  EXPECT_EQ(PRAX_MutexLock(&mutex), 0);
  for (const int elsewhere : {EBUSY, 0}) {
    EXPECT_EQ(PRAX_MutexUnLock(&mutex), 0);
    std::thread([&] {
      EXPECT_EQ(pthread_mutex_trylock(&mutex), elsewhere);
      if (elsewhere == 0) PRAX_MutexUnLock(&mutex);
    }).join();
  }
  EXPECT_EQ(PRAX_MutexDestroy(&mutex), 0);
}

std::atomic<int> handledSignals{0};

void CountSignal(int) { handledSignals.fetch_add(1); }

TEST_F(PraxThreadTest, AWaitOutlastsSignalsAndEndsWithAPost) {
  struct sigaction action = {};
  struct sigaction earlier = {};
  action.sa_handler = CountSignal;  // without SA_RESTART, so that a wait is interrupted
  ASSERT_EQ(sigaction(SIGUSR1, &action, &earlier), 0);
  handledSignals = 0;
  PRAX_SEM sem;
  ASSERT_EQ(PRAX_SemInit(&sem, 0), 0);
  std::atomic<bool> returned{false};
  int result = -1;
  std::thread waiter([&] {
    result = PRAX_SemWait(&sem);
    returned = true;
  });
  // Sent again and again: a sanitizer may put off a signal that comes just before the wait.
  while (handledSignals < 200 && !returned) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  EXPECT_FALSE(returned);
  EXPECT_EQ(PRAX_SemPost(&sem), 0);
  waiter.join();
  EXPECT_EQ(result, 0);
  sigaction(SIGUSR1, &earlier, nullptr);
}

class ReplaceFileTest : public PraxTest {
 protected:
  void SetUp() override { WriteWholeFile(m_path, "old"); }

  int Replace(const std::string& content) {
    return PRAX_ReplaceFile(m_path.c_str(), content.data(), content.size(), kMode);
  }
  std::set<std::string> Names() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path())) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  void ExpectOnlyTheOldFile() const {
    EXPECT_EQ(ReadWholeFile(m_path), "old");
    EXPECT_EQ(Names(), std::set<std::string>{"file"});
  }

  TempDir m_dir;
  const std::string m_path = m_dir.File("file");
  const std::string m_temp = m_path + ".tmp";
};

TEST_F(ReplaceFileTest, WritesTheWholeContentWithTheModeWhateverTheUmask) {
  const std::string content = std::string("new\0bytes", 9) + std::string(100000, 'x');
  const mode_t umaskBefore = ::umask(077);
  const int result = Replace(content);
  ::umask(umaskBefore);
  ASSERT_EQ(result, 0);
  EXPECT_EQ(ReadWholeFile(m_path), content);
  PRAX_STAT status;
  ASSERT_EQ(PRAX_Stat(m_path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, kMode);
  EXPECT_EQ(Names(), std::set<std::string>{"file"});
  std::filesystem::remove(m_path);
  EXPECT_NE(PRAX_ReplaceFile(m_path.c_str(), nullptr, 1, kMode), 0);
  ASSERT_EQ(PRAX_ReplaceFile(m_path.c_str(), nullptr, 0, kMode), 0);
  EXPECT_EQ(ReadWholeFile(m_path), "");
}

// Root may write everywhere, so this thread takes another user's rights for the call.
TEST_F(ReplaceFileTest, AProtectedDirectoryOrAnImpossibleRenameKeepsTheOldContent) {
  std::filesystem::permissions(m_dir.Path(), std::filesystem::perms{0555});
  const auto userBefore = static_cast<uid_t>(::setfsuid(kNobody));
  const int result = Replace("new");
  const int error = PRAX_GetLastErr();
  ::setfsuid(userBefore);
  std::filesystem::permissions(m_dir.Path(), std::filesystem::perms{0755});
  EXPECT_NE(result, 0);
  EXPECT_EQ(error, EACCES);
  ExpectOnlyTheOldFile();

  std::filesystem::remove(m_path);
  std::filesystem::create_directory(m_path);
  EXPECT_NE(Replace("new"), 0);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(PRAX_GetLastErr(), EISDIR);
  EXPECT_EQ(Names(), std::set<std::string>{"file"});
  EXPECT_NE(PRAX_ReplaceFile(m_dir.File("no/file").c_str(), "x", 1, kMode), 0);
  EXPECT_EQ(PRAX_GetLastErr(), ENOENT);
}

// The size limit of a process of its own stands for a full disk.
TEST_F(ReplaceFileTest, AWriteThatFailsHalfWayKeepsTheOldContent) {
  EXPECT_TRUE(support::InChild([&] {
    const rlimit limit{4096, 4096};
    ::signal(SIGXFSZ, SIG_IGN);
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 && Replace(std::string(10000, 'x')) != 0 &&
           errno == EFBIG;
  }));
  ExpectOnlyTheOldFile();
}

TEST_F(ReplaceFileTest, WhatAKilledWriterLeftIsReplacedAndALinkInItsPlaceNotFollowed) {
  WriteWholeFile(m_temp, "a longer text of a killed writer");
  ASSERT_EQ(Replace("new"), 0);
  EXPECT_EQ(ReadWholeFile(m_path), "new");
  EXPECT_EQ(Names(), std::set<std::string>{"file"});

  const std::string victim = m_dir.File("victim");
  WriteWholeFile(victim, "untouched");
  std::filesystem::create_symlink(victim, m_temp);
  ASSERT_EQ(Replace("newer"), 0);
  EXPECT_EQ(ReadWholeFile(m_path), "newer");
  EXPECT_EQ(ReadWholeFile(victim), "untouched");
}

// Publishing or removing the half-written file of a living writer would lose content.
TEST_F(ReplaceFileTest, TheTemporaryFileOfALivingWriterIsLeftAlone) {
  WriteWholeFile(m_temp, "half wri");
  const int writer = ::open(m_temp.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::flock(writer, LOCK_EX), 0);
  EXPECT_NE(Replace("new"), 0);
  EXPECT_EQ(PRAX_GetLastErr(), EBUSY);
  EXPECT_EQ(ReadWholeFile(m_path), "old");
  EXPECT_EQ(ReadWholeFile(m_temp), "half wri");
  ::close(writer);
  EXPECT_EQ(Replace("new"), 0);
}

TEST_F(ReplaceFileTest, AReaderFindsWholeContentsOnlyWhileThreadsReplaceIt) {
  constexpr int kRounds = 40;
  constexpr std::size_t kSize = 20000;
  ASSERT_EQ(Replace(std::string(kSize, 'a')), 0);
  std::atomic<int> failures{0};
  std::atomic<int> running{2};
  std::vector<std::thread> writers;
  for (const char letter : {'a', 'b'}) {
    writers.emplace_back([&, letter] {
      for (int i = 0; i < kRounds; ++i) failures += Replace(std::string(kSize, letter)) != 0;
      --running;
    });
  }
  do {
    const std::string content = ReadWholeFile(m_path);
    ASSERT_EQ(content.size(), kSize);
    ASSERT_EQ(content.find_first_not_of(content[0]), std::string::npos);
  } while (running > 0);
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(failures, 0);
}

class PraxFileTest : public PraxTest {
 protected:
  TempDir m_dir;
};

TEST_F(PraxFileTest, FailuresLeaveTheirOutputAloneAndAreToldAfterOtherCalls) {
  FILE* const file = PRAX_Fopen(m_dir.File("f").c_str(), "wb");
  ASSERT_NE(file, nullptr);
  EXPECT_NE(::fcntl(::fileno(file), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(PRAX_Fwrite("abc", 1, 3, file), 3U);
  EXPECT_EQ(PRAX_Fclose(file), 0);
  unsigned long size = 99;
  EXPECT_NE(PRAX_GetFileSize(m_dir.File("none").c_str(), &size), 0);
  EXPECT_EQ(size, 99U);
  errno = 0;  // as anything between the failure and the question may do
  EXPECT_EQ(PRAX_GetLastErr(), ENOENT);
  EXPECT_EQ(PRAX_Fopen(nullptr, "rb"), nullptr);
  EXPECT_EQ(PRAX_Fopen(m_dir.File("f").c_str(), nullptr), nullptr);
  EXPECT_EQ(PRAX_GetLastErr(), EINVAL);
  EXPECT_EQ(PRAX_OpenDir(m_dir.File("none").c_str()), nullptr);
  EXPECT_NE(PRAX_MkDir(m_dir.File("none/below").c_str(), 0755), 0) << "one level only";
}

int NotDots(const struct dirent* entry) { return entry->d_name[0] != '.'; }

TEST_F(PraxFileTest, AScanHoldsManyAndLongNamesAndTellsALinkFromItsDirectory) {
  ASSERT_EQ(PRAX_MkDir(m_dir.File("directory").c_str(), 0755), 0);
  std::filesystem::create_directory_symlink(m_dir.File("directory"), m_dir.File("link"));
  EXPECT_NE(PRAX_IsDir(m_dir.File("link").c_str()), 0) << "a link to a directory is followed here";
  std::map<std::string, int> expected = {{"directory", DT_DIR}, {"link", DT_LNK}};
  for (int i = 0; i < 100; ++i) {
    const std::string name = std::string(200, 'n') + std::to_string(i);
    WriteWholeFile(m_dir.File(name), "");
    expected[name] = DT_REG;
  }
  struct dirent** list = nullptr;
  const int count = PRAX_ScanDir(m_dir.Path().c_str(), &list, NotDots);
  std::map<std::string, int> types;
  for (int i = 0; i < count; ++i) types[list[i]->d_name] = list[i]->d_type;
  PRAX_DestoryNameList(list, count);
  EXPECT_EQ(types, expected);
  EXPECT_EQ(PRAX_ScanDir(m_dir.File("none").c_str(), &list, nullptr), -1);
  EXPECT_EQ(list, nullptr);
}

TEST_F(PraxTest, MemoryIsZeroFilledEvenWhenUsedBefore) {
  constexpr std::size_t kSize = 64;
  for (int i = 0; i < 8; ++i) {
    void* memory = PRAX_MemMallocS(kSize);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(std::string(static_cast<char*>(memory), kSize), std::string(kSize, '\0'));
    std::memset(memory, 'x', kSize);
    PRAX_MemFreeSetNullD(&memory);
    EXPECT_EQ(memory, nullptr);
    PRAX_MemFreeSetNullD(&memory);
  }
  EXPECT_EQ(PRAX_MemMallocS(0), nullptr);
  EXPECT_EQ(PRAX_StrLen(nullptr), 0U);
}

TEST_F(PraxTest, OnlyFourDecimalPartsAreAnAddress) {
  EXPECT_EQ(PRAX_InetAddr("10.1.2.3"), htonl(0x0A010203));
  for (const char* text : {"", "10.1", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.4 ", " 1.2.3.4",
                           "0x1.2.3.4", "a.b.c.d", "::1"}) {
    EXPECT_EQ(PRAX_InetAddr(text), 0xFFFFFFFFU) << text;
  }
  EXPECT_EQ(PRAX_InetAddr(nullptr), 0xFFFFFFFFU);
}

}  // namespace
