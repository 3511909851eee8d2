// The reference key management on real files: damage, loss, other processes, kill -9.
#include <grp.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Child.h"
#include "support/TempDir.h"
#include "zel_platform/crypto.h"
#include "zel_platform/zorm.h"
#include "zorm/zorm_ref.h"

namespace {

namespace fs = std::filesystem;
using support::ReadWholeFile;
using support::WriteWholeFile;

constexpr char kPlain[] = "0123456789ABCDEF0123456789ABCDEF";
constexpr unsigned int kPlainLength = sizeof(kPlain) - 1;
constexpr std::size_t kCipherBytes = kPlainLength + 28;
constexpr id_t kNobody = 65534;

// The files of one store in a directory of their own.
struct Place {
  int Start() const {
    return orb_zorm_service_start_ex(log.c_str(), store.c_str(), backup.c_str());
  }

  support::TempDir directory;
  std::string log = directory.File("native_sdk.txt");
  std::string home = directory.File("zorm");
  std::string store = home + "/zormStore.dat";
  std::string backup = home + "/zormStore_bak.dat";
};

// Empty when the service refuses.
std::string Encrypted() {
  std::string cipher(kCipherBytes, '\0');
  unsigned int length = static_cast<unsigned int>(cipher.size());
  const int code = orb_zorm_encrypt(reinterpret_cast<const unsigned char*>(kPlain), kPlainLength,
                                    reinterpret_cast<unsigned char*>(cipher.data()), &length);
  return code == 0 && length == cipher.size() ? cipher : std::string();
}

bool Opens(const std::string& cipher) {
  unsigned char plain[kPlainLength];
  unsigned int length = sizeof(plain);
  const int code = orb_zorm_decrypt(reinterpret_cast<const unsigned char*>(cipher.data()),
                                    static_cast<unsigned int>(cipher.size()), plain, &length);
  return code == 0 && std::string(plain, plain + length) == kPlain;
}

unsigned int ModeOf(const std::string& path) {
  struct stat found;
  return ::stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

std::set<std::string> NamesIn(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) names.insert(entry.path().filename());
  return names;
}

bool IsOtherFailure(int code) {
  return code != 0 && code != kZormAlreadyStarted && code != kZormStoreDamaged;
}

class ZormStoreTest : public testing::Test {
 protected:
  ZormStoreTest() { zorm_ref_reset(); }
  ~ZormStoreTest() override { zorm_ref_reset(); }

  // Starts the store, keeps a cipher text and both files' content, and stops it again.
  void SetUp() override {
    ASSERT_EQ(m_place.Start(), 0);
    m_cipher = Encrypted();
    ASSERT_FALSE(m_cipher.empty());
    ASSERT_EQ(orb_zorm_service_stop(), 0);
    m_content = ReadWholeFile(m_place.store);
    ASSERT_EQ(ReadWholeFile(m_place.backup), m_content);
  }

  // One start after `what` happened to a file: the key is the same, the pair whole again.
  void ExpectHealed(const std::string& what) {
    ASSERT_EQ(m_place.Start(), 0) << what;
    ASSERT_TRUE(Opens(m_cipher)) << what;
    ASSERT_EQ(orb_zorm_service_stop(), 0);
    for (const std::string& path : {m_place.store, m_place.backup}) {
      ASSERT_EQ(ReadWholeFile(path), m_content) << what;
      ASSERT_EQ(ModeOf(path), 0600u) << what;
    }
  }

  const Place m_place;
  std::string m_cipher;
  std::string m_content;
};

TEST_F(ZormStoreTest, HealsWhateverHappensToEitherFile) {
  for (const std::string& path : {m_place.store, m_place.backup}) {
    std::vector<std::string> contents = {m_content + '\0', m_content + std::string(100000, '\0')};
    for (std::size_t i = 0; i < m_content.size(); ++i) {
      contents.push_back(m_content.substr(0, i));
      contents.push_back(m_content);
      contents.back()[i] = static_cast<char>(m_content[i] ^ (1 << i % 8));
    }
    for (const std::string& content : contents) {
      WriteWholeFile(path, content);
      ASSERT_NO_FATAL_FAILURE(ExpectHealed(path)) << testing::PrintToString(content);
    }
    ASSERT_TRUE(fs::remove(path));
    ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " removed"));
    ASSERT_TRUE(fs::remove(path));
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " is a pipe"));
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " is open to others"));
  }
}

TEST_F(ZormStoreTest, ReportsDamageAsOftenAsAskedUntilBothFilesAreDeleted) {
  std::string damaged = m_content;
  damaged.back() = static_cast<char>(damaged.back() ^ 1);
  using Contents = std::pair<std::string, std::string>;  // an empty one stands for no file
  for (const auto& [main, backup] :
       {Contents(damaged, damaged), Contents(damaged, ""), Contents("", damaged)}) {
    for (const auto& [path, content] :
         {Contents(m_place.store, main), Contents(m_place.backup, backup)}) {
      fs::remove(path);
      if (!content.empty()) WriteWholeFile(path, content);
    }
    EXPECT_EQ(m_place.Start(), kZormStoreDamaged);
    EXPECT_EQ(m_place.Start(), kZormStoreDamaged);
    EXPECT_EQ(Encrypted(), "");
  }
  fs::remove(m_place.store);
  fs::remove(m_place.backup);
  EXPECT_EQ(m_place.Start(), 0);
  EXPECT_FALSE(Opens(m_cipher));
  EXPECT_TRUE(Opens(Encrypted()));
}

TEST_F(ZormStoreTest, FollowsTheMainFileWhenTheTwoHoldDifferentKeys) {
  const Place other;
  ASSERT_EQ(other.Start(), 0);
  const std::string otherCipher = Encrypted();
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  const std::string otherContent = ReadWholeFile(other.store);

  WriteWholeFile(m_place.backup, otherContent);
  ASSERT_NO_FATAL_FAILURE(ExpectHealed("backup of another key"));

  WriteWholeFile(m_place.store, otherContent);
  ASSERT_EQ(m_place.Start(), 0);
  EXPECT_TRUE(Opens(otherCipher));
  EXPECT_FALSE(Opens(m_cipher));
  EXPECT_EQ(ReadWholeFile(m_place.backup), otherContent);
}

TEST_F(ZormStoreTest, MakesLongPathsForItselfAlone) {
  std::string home = m_place.directory.Path();
  for (int i = 0; i < 12; ++i) home += "/" + std::string(100, static_cast<char>('a' + i));
  const std::string store = home + "/store.dat", backup = home + "/store_bak.dat";
  const mode_t before = ::umask(0);
  const int code = orb_zorm_service_start_ex("", store.c_str(), backup.c_str());
  (void)::umask(before);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(ModeOf(home), 0700u);
  EXPECT_EQ(ModeOf(fs::path(home).parent_path()), 0700u);
  for (const std::string& name : NamesIn(home)) EXPECT_EQ(ModeOf(home + "/" + name), 0600u) << name;
}

TEST_F(ZormStoreTest, LogsWhatHappenedButNeitherKeyNorPath) {
  WriteWholeFile(m_place.store, "damaged");
  ASSERT_NO_FATAL_FAILURE(ExpectHealed("main file"));
  WriteWholeFile(m_place.store, "damaged");
  WriteWholeFile(m_place.backup, "damaged");
  ASSERT_EQ(m_place.Start(), kZormStoreDamaged);

  const std::string log = ReadWholeFile(m_place.log);
  EXPECT_NE(log.find("a new key is made"), std::string::npos);
  EXPECT_NE(log.find("main file was damaged"), std::string::npos);
  EXPECT_NE(log.find("no intact file is left"), std::string::npos);
  EXPECT_EQ(log.find(m_place.directory.Path()), std::string::npos);
  EXPECT_EQ(ModeOf(m_place.log) & 0137u, 0u);
  for (std::size_t i = 0; i + 4 <= m_content.size(); ++i) {
    const std::string piece = m_content.substr(i, 4);
    char hex[9];
    ASSERT_EQ(orb_cvt_hex(reinterpret_cast<const unsigned char*>(piece.data()), 4, hex, 9), 0);
    EXPECT_EQ(log.find(piece), std::string::npos) << i;
    EXPECT_EQ(log.find(hex), std::string::npos) << i;
  }
}

// Runs `body` in a child that file permissions bind, root's tests included. True when it
// returned true.
bool HoldsForOrdinaryUser(const Place& place, const std::function<bool()>& body) {
  const bool isRoot = ::geteuid() == 0;
  if (isRoot) {
    if (::chown(place.directory.Path().c_str(), kNobody, kNobody) != 0) return false;
    for (const auto& entry : fs::recursive_directory_iterator(place.directory.Path())) {
      if (::chown(entry.path().c_str(), kNobody, kNobody) != 0) return false;
    }
  }
  return support::InChild([&] {
           const bool isBound = !isRoot || (::setgroups(0, nullptr) == 0 &&
                                            ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
           return isBound && body();
         }) == 1;
}

TEST_F(ZormStoreTest, TakesNothingForDamagedThatItMayNotReadOrWrite) {
  for (const std::string& path : {m_place.store, m_place.backup, m_place.home}) {
    const bool isDirectory = path == m_place.home;
    ASSERT_EQ(::chmod(path.c_str(), isDirectory ? 0500 : 0), 0);
    EXPECT_TRUE(HoldsForOrdinaryUser(m_place, [&] { return IsOtherFailure(m_place.Start()); }));
    ASSERT_EQ(::chmod(path.c_str(), isDirectory ? 0700 : 0600), 0);
    EXPECT_TRUE(HoldsForOrdinaryUser(m_place, [&] { return m_place.Start() == 0; }));
    EXPECT_EQ(ReadWholeFile(m_place.store) + ReadWholeFile(m_place.backup), m_content + m_content);
  }
}

// A child process that starts the store when told to.
class OtherProcess {
 public:
  explicit OtherProcess(const Place& place) {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_ends), 0);
    m_child = ::fork();
    if (m_child == 0) Serve(place);
    EXPECT_GT(m_child, 0);
  }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;
  ~OtherProcess() {
    Kill();
    ::close(m_ends[0]);
    ::close(m_ends[1]);
  }

  // The child's result, or -1.
  int Start() {
    int code = -1;
    if (::write(m_ends[0], "s", 1) != 1) return -1;
    return ::read(m_ends[0], &code, sizeof(code)) == sizeof(code) ? code : -1;
  }

  void Kill() {
    if (m_child <= 0) return;
    EXPECT_EQ(::kill(m_child, SIGKILL), 0);
    EXPECT_EQ(::waitpid(m_child, nullptr, 0), m_child);
    m_child = 0;
  }

 private:
  [[noreturn]] void Serve(const Place& place) {
    ::close(m_ends[0]);
    char command = 0;
    while (::read(m_ends[1], &command, 1) == 1) {
      const int code = place.Start();
      if (::write(m_ends[1], &code, sizeof(code)) != sizeof(code)) break;
    }
    ::_exit(0);
  }

  int m_ends[2] = {-1, -1};
  pid_t m_child = 0;
};

TEST_F(ZormStoreTest, KeepsAnotherProcessOutUntilTheStopOrTheDeathOfTheFirst) {
  OtherProcess other(m_place);
  ASSERT_EQ(m_place.Start(), 0);
  EXPECT_EQ(other.Start(), kZormAlreadyStarted);
  EXPECT_TRUE(Opens(m_cipher));
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  EXPECT_EQ(other.Start(), 0);
  EXPECT_EQ(m_place.Start(), kZormAlreadyStarted);
  other.Kill();
  EXPECT_EQ(m_place.Start(), 0);
  EXPECT_TRUE(Opens(m_cipher));
  OtherProcess forkedMeanwhile(m_place);
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  EXPECT_EQ(m_place.Start(), 0) << "although a forked child lives on";
}

enum class Ending { kKilled, kFinished, kFailed, kNotTraceable };

// Starts the store in a child and kills the child as it begins its system call number `calls`.
Ending StartAndKillAtCall(const Place& place, int calls) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 || ::raise(SIGSTOP) != 0) ::_exit(2);
    ::_exit(place.Start() == 0 ? 0 : 1);
  }
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return Ending::kNotTraceable;
  for (int stop = 0; stop <= 2 * calls; ++stop) {  // each call stops at its begin and its end
    if (::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0) return Ending::kFailed;
    if (::waitpid(child, &status, 0) != child) return Ending::kFailed;
    if (WIFEXITED(status)) return WEXITSTATUS(status) == 0 ? Ending::kFinished : Ending::kFailed;
  }
  const bool isKilled = ::kill(child, SIGKILL) == 0 && ::waitpid(child, &status, 0) == child;
  return isKilled ? Ending::kKilled : Ending::kFailed;
}

// Between two system calls nothing changes that outlives the process, so these are all points.
TEST_F(ZormStoreTest, StartsAgainAfterAKillAtEachSystemCallOfAStart) {
  const std::set<std::string> names = NamesIn(m_place.home);
  const std::vector<std::function<void()>> beginnings = {
      [&] { fs::remove_all(m_place.home); },
      [&] { WriteWholeFile(m_place.store, "damaged"); },
      [&] { fs::remove(m_place.backup); },
  };
  for (std::size_t i = 0; i < beginnings.size(); ++i) {
    Ending ending = Ending::kKilled;
    for (int calls = 0; ending == Ending::kKilled; ++calls) {
      SCOPED_TRACE(testing::Message() << "beginning " << i << ", call " << calls);
      beginnings[i]();
      ending = StartAndKillAtCall(m_place, calls);
      if (ending == Ending::kNotTraceable) GTEST_SKIP() << "processes cannot be traced here";
      ASSERT_NE(ending, Ending::kFailed);
      ASSERT_EQ(m_place.Start(), 0);
      if (i == 0) m_cipher = Encrypted();  // of a new key, which the next beginnings must keep
      ASSERT_TRUE(Opens(m_cipher));
      ASSERT_EQ(orb_zorm_service_stop(), 0);
      ASSERT_EQ(NamesIn(m_place.home), names);
      ASSERT_EQ(ReadWholeFile(m_place.store), ReadWholeFile(m_place.backup));
    }
  }
}

}  // namespace
