#include "zel_platform/prax.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "support/Child.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using support::ReadWholeFile;
using support::WriteWholeFile;

constexpr unsigned int kMode = 0640;

class PraxTest : public testing::Test {
 protected:
  ~PraxTest() override { PRAX_Ref_Reset(); }
};

void* StoreTid(void* out) {
  *static_cast<unsigned long*>(out) = PRAX_GetTID();
  return out;
}

// The attribute asks for a stack that no address space holds, so the start really fails.
TEST_F(PraxTest, AFailedStartLeavesNoHandle) {
  pthread_attr_t hugeStack;
  ASSERT_EQ(pthread_attr_init(&hugeStack), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&hugeStack, std::size_t{1} << 60), 0);
  PRAX_THREAD thread = 77;
  EXPECT_EQ(PRAX_PthreadCreate(&thread, &hugeStack, StoreTid, nullptr), EAGAIN);
  pthread_attr_destroy(&hugeStack);
  EXPECT_EQ(thread, 0U);
}

// A thread handle is commonly given to the next thread at once; the id must not be.
TEST_F(PraxTest, ThreadsHandTheirResultToTheJoinAndHaveDistinctIds) {
  std::set<unsigned long> ids = {PRAX_GetTID()};
  for (std::size_t i = 1; i <= 20; ++i) {
    unsigned long tid = 0;
    PRAX_THREAD thread = 0;
    void* result = nullptr;
    ASSERT_EQ(PRAX_PthreadCreate(&thread, nullptr, StoreTid, &tid), 0);
    ASSERT_EQ(PRAX_PthreadJoin(thread, &result), 0);
    EXPECT_EQ(result, &tid);
    EXPECT_TRUE(ids.insert(tid).second);
  }
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

std::atomic<int> g_signals{0};

TEST_F(PraxTest, AWaitOutlastsSignalsAndEndsWithAPost) {
  struct sigaction action = {}, earlier = {};
  action.sa_handler = [](int) { ++g_signals; };  // without SA_RESTART: a wait is interrupted
  ASSERT_EQ(sigaction(SIGUSR1, &action, &earlier), 0);
  g_signals = 0;
  PRAX_SEM sem;
  ASSERT_EQ(PRAX_SemInit(&sem, 0), 0);
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    EXPECT_EQ(PRAX_SemWait(&sem), 0);
    returned = true;
  });
  // Sent again and again: a sanitizer may put off a signal that comes just before the wait.
  while (g_signals < 200 && !returned) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  EXPECT_FALSE(returned);
  EXPECT_EQ(PRAX_SemPost(&sem), 0);
  waiter.join();
  sigaction(SIGUSR1, &earlier, nullptr);
}

class PraxFileTest : public PraxTest {
 protected:
  PraxFileTest() { WriteWholeFile(m_path, "old"); }

  int Replace(const std::string& content) {
    return PRAX_ReplaceFile(m_path.c_str(), content.data(), content.size(), kMode);
  }
  void ExpectOnlyFile() const {
    EXPECT_TRUE(fs::exists(m_path));
    const fs::directory_iterator entries(m_dir.Path());
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
  }

  support::TempDir m_dir;
  const std::string m_path = m_dir.File("file"), m_temp = m_path + ".tmp";
};

TEST_F(PraxFileTest, WritesTheWholeContentWithTheModeWhateverTheUmask) {
  const std::string content = std::string("new\0bytes", 9) + std::string(100000, 'x');
  const mode_t umaskBefore = ::umask(077);
  const int result = Replace(content);
  ::umask(umaskBefore);
  ASSERT_EQ(result, 0);
  EXPECT_EQ(ReadWholeFile(m_path), content);
  EXPECT_EQ(fs::status(m_path).permissions(), fs::perms{kMode});
  ExpectOnlyFile();
  fs::remove(m_path);
  EXPECT_NE(PRAX_ReplaceFile(m_path.c_str(), nullptr, 1, kMode), 0);
  ASSERT_EQ(PRAX_ReplaceFile(m_path.c_str(), nullptr, 0, kMode), 0);
  EXPECT_EQ(ReadWholeFile(m_path), "");
}

TEST_F(PraxFileTest, AnImpossibleRenameLeavesNothingBehind) {
  fs::remove(m_path);
  fs::create_directory(m_path);
  EXPECT_NE(Replace("new"), 0);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(PRAX_GetLastErr(), EISDIR);
  ExpectOnlyFile();
  EXPECT_NE(PRAX_ReplaceFile(m_dir.File("no/file").c_str(), "x", 1, kMode), 0);
  EXPECT_EQ(PRAX_GetLastErr(), ENOENT);
}

// The size limit of a process of its own stands for a full disk.
TEST_F(PraxFileTest, AWriteThatFailsHalfWayKeepsTheOldContent) {
  EXPECT_TRUE(support::InChild([&] {
    const rlimit limit{4096, 4096};
    (void)std::signal(SIGXFSZ, SIG_IGN);
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 && Replace(std::string(10000, 'x')) != 0 &&
           errno == EFBIG;
  }));
  EXPECT_EQ(ReadWholeFile(m_path), "old");
  ExpectOnlyFile();
}

TEST_F(PraxFileTest, WhatAKilledWriterLeftIsReplacedAndALinkInItsPlaceNotFollowed) {
  WriteWholeFile(m_temp, "a longer text of a killed writer");
  ASSERT_EQ(Replace("new"), 0);
  EXPECT_EQ(ReadWholeFile(m_path), "new");
  ExpectOnlyFile();

  const std::string victim = m_dir.File("victim");
  WriteWholeFile(victim, "untouched");
  fs::create_symlink(victim, m_temp);
  ASSERT_EQ(Replace("newer"), 0);
  EXPECT_EQ(ReadWholeFile(m_path), "newer");
  EXPECT_EQ(ReadWholeFile(victim), "untouched");
}

// Publishing or removing the half-written file of a living writer would lose content.
TEST_F(PraxFileTest, TheTemporaryFileOfALivingWriterIsLeftAlone) {
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

TEST_F(PraxFileTest, OtherFailuresLeaveTheirOutputAloneAndAreToldAfterOtherCalls) {
  FILE* const file = PRAX_Fopen(m_path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  EXPECT_NE(::fcntl(::fileno(file), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(PRAX_Fclose(file), 0);
  const std::string none = m_dir.File("none");
  unsigned long size = 99;
  EXPECT_NE(PRAX_GetFileSize(none.c_str(), &size), 0);
  EXPECT_EQ(size, 99U);
  errno = 0;  // as anything between the failure and the question may do
  EXPECT_EQ(PRAX_GetLastErr(), ENOENT);
  EXPECT_EQ(PRAX_Fopen(nullptr, "rb"), nullptr);
  EXPECT_EQ(PRAX_Fopen(m_path.c_str(), nullptr), nullptr);
  EXPECT_EQ(PRAX_GetLastErr(), EINVAL);
  EXPECT_EQ(PRAX_OpenDir(none.c_str()), nullptr);
  EXPECT_NE(PRAX_MkDir((none + "/below").c_str(), 0755), 0) << "one level only";
}

TEST_F(PraxTest, MemoryIsZeroFilledEvenWhenUsedBefore) {
  for (int i = 0; i < 8; ++i) {
    void* memory = PRAX_MemMallocS(64);
    EXPECT_EQ(std::string(static_cast<char*>(memory), 64), std::string(64, '\0'));
    std::memset(memory, 'x', 64);
    PRAX_MemFreeSetNullD(&memory);
    EXPECT_EQ(memory, nullptr);
  }
  EXPECT_EQ(PRAX_MemMallocS(0), nullptr);
}

}  // namespace
