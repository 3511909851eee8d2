// The reference key management on real files: damage, loss, other processes, kill -9.
#include <grp.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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

TEST_F(ZormStoreTest, HealsEveryChangedByteOfEitherFile) {
  for (const std::string& path : {m_place.store, m_place.backup}) {
    for (std::size_t i = 0; i < m_content.size(); ++i) {
      std::string changed = m_content;
      changed[i] = static_cast<char>(changed[i] ^ (1 << i % 8));
      WriteWholeFile(path, changed);
      ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " changed at " + std::to_string(i)));
    }
  }
}

TEST_F(ZormStoreTest, HealsEveryOtherLengthOfEitherFile) {
  for (const std::string& path : {m_place.store, m_place.backup}) {
    for (std::size_t length = 0; length < m_content.size(); ++length) {
      WriteWholeFile(path, m_content.substr(0, length));
      ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " cut to " + std::to_string(length)));
    }
    for (const std::size_t more : {std::size_t{1}, std::size_t{100000}}) {
      WriteWholeFile(path, m_content + std::string(more, '\0'));
      ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " longer by " + std::to_string(more)));
    }
  }
}

TEST_F(ZormStoreTest, HealsAFileThatIsGoneOrGaveWayToAPipeOrIsOpenToOthers) {
  for (const std::string& path : {m_place.store, m_place.backup}) {
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

TEST_F(ZormStoreTest, TakesItsNextCodesFromATestAndKeepsTheCalls) {
  zorm_ref_set_start_codes({kZormStoreDamaged, 0});
  zorm_ref_set_stop_codes({9});
  EXPECT_EQ(m_place.Start(), kZormStoreDamaged);
  EXPECT_EQ(m_place.Start(), 0);
  EXPECT_EQ(orb_zorm_service_stop(), 9);
  EXPECT_TRUE(Opens(m_cipher));  // the stop did nothing
  EXPECT_EQ(orb_zorm_service_stop(), 0);
  const std::vector<ZormCall> calls = zorm_ref_calls();
  ASSERT_GE(calls.size(), 5u);
  EXPECT_EQ(calls[calls.size() - 3].function, "stop");
  EXPECT_EQ(calls[calls.size() - 3].result, 9);
  zorm_ref_reset();
  EXPECT_TRUE(zorm_ref_calls().empty());
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
  const pid_t child = ::fork();
  if (child == 0) {
    const bool isBound = !isRoot || (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 &&
                                     ::setuid(kNobody) == 0);
    ::_exit(isBound && body() ? 0 : 1);
  }
  int status = -1;
  return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

TEST_F(ZormStoreTest, DoesNotTakeAFileForDamagedThatItMayNotRead) {
  for (const std::string& path : {m_place.store, m_place.backup}) {
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    EXPECT_TRUE(HoldsForOrdinaryUser(m_place, [&] { return IsOtherFailure(m_place.Start()); }));
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    EXPECT_TRUE(HoldsForOrdinaryUser(m_place, [&] { return m_place.Start() == 0; }));
    EXPECT_EQ(ReadWholeFile(path), m_content);
  }
}

TEST_F(ZormStoreTest, DoesNotStartInADirectoryThatCannotBeWritten) {
  ASSERT_EQ(::chmod(m_place.home.c_str(), 0500), 0);
  EXPECT_TRUE(HoldsForOrdinaryUser(m_place, [&] { return IsOtherFailure(m_place.Start()); }));
  ASSERT_EQ(::chmod(m_place.home.c_str(), 0700), 0);
  ASSERT_NO_FATAL_FAILURE(ExpectHealed("directory"));
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
}

TEST_F(ZormStoreTest, GivesTheStoreUpAlthoughAForkedChildLivesOn) {
  ASSERT_EQ(m_place.Start(), 0);
  OtherProcess forkedMeanwhile(m_place);
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  EXPECT_EQ(m_place.Start(), 0);
}

// Kills the calling process in `delay`, as kill -9 does.
bool ArmKill(std::chrono::nanoseconds delay) {
  struct sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGKILL;
  timer_t timer;
  struct itimerspec when = {};
  when.it_value.tv_sec = static_cast<time_t>(delay.count() / 1000000000);
  when.it_value.tv_nsec = static_cast<long>(delay.count() % 1000000000) + 1;
  return ::timer_create(CLOCK_MONOTONIC, &event, &timer) == 0 &&
         ::timer_settime(timer, 0, &when, nullptr) == 0;
}

// Starts over and over, reports a cipher text of each start, and harms one file after it.
[[noreturn]] void WorkUntilKilled(const Place& place, std::chrono::nanoseconds delay, int out) {
  if (!ArmKill(delay)) ::_exit(1);
  for (int round = 0;; ++round) {
    if (place.Start() != 0) ::_exit(2);
    const std::string cipher = Encrypted();
    if (::write(out, cipher.data(), cipher.size()) != kCipherBytes) ::_exit(3);
    if (orb_zorm_service_stop() != 0) ::_exit(4);
    const std::string& harmed = round % 2 == 0 ? place.store : place.backup;
    const bool isHarmed =
        round % 4 < 2 ? ::truncate(harmed.c_str(), 20) == 0 : ::unlink(harmed.c_str()) == 0;
    if (!isHarmed) ::_exit(5);
  }
}

// Adds the cipher texts that the child reported before it was killed.
void RunAndKill(const Place& place, std::chrono::nanoseconds delay,
                std::vector<std::string>* ciphers) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) WorkUntilKilled(place, delay, ends[1]);
  ::close(ends[1]);
  std::string cipher(kCipherBytes, '\0');
  while (::read(ends[0], cipher.data(), cipher.size()) == kCipherBytes) ciphers->push_back(cipher);
  ::close(ends[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "a start failed in the child: " << WEXITSTATUS(status);
}

// Most of the even rounds kill a start that finds next to nothing, the odd ones repairs.
TEST_F(ZormStoreTest, LosesNoKeyInUseWhereverItIsKilled) {
  WriteWholeFile(m_place.store, "damaged");
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_EQ(m_place.Start(), 0);
  const std::chrono::nanoseconds oneStart = std::chrono::steady_clock::now() - begin;
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  const std::set<std::string> names = NamesIn(m_place.home);

  std::mt19937_64 random(20240229);
  for (int store = 0; store < 15; ++store) {
    const Place place;
    std::vector<std::string> ciphers;
    for (const int starts : {4, 8, 4, 8}) {
      const auto most = static_cast<std::uint64_t>(oneStart.count() * starts);
      ASSERT_NO_FATAL_FAILURE(RunAndKill(
          place, std::chrono::nanoseconds(static_cast<std::int64_t>(random() % most)), &ciphers));
      ASSERT_EQ(place.Start(), 0);
      EXPECT_EQ(NamesIn(place.home), names);
      for (const std::string& cipher : ciphers) ASSERT_TRUE(Opens(cipher));
      ciphers.push_back(Encrypted());
      ASSERT_EQ(orb_zorm_service_stop(), 0);
    }
  }
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
