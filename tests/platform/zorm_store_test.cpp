// The reference key management on real files: damage, loss, other processes.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Child.h"
#include "support/TempDir.h"
#include "zel_platform/zorm.h"
#include "zorm/zorm_ref.h"

namespace {

namespace fs = std::filesystem;
using support::ReadWholeFile;
using support::WriteWholeFile;

constexpr char kPlain[] = "0123456789ABCDEF0123456789ABCDEF";
constexpr unsigned int kPlainLength = sizeof(kPlain) - 1;

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
  unsigned char cipher[kPlainLength + 28];
  unsigned int length = sizeof(cipher);
  const auto* const plain = reinterpret_cast<const unsigned char*>(kPlain);
  const int code = orb_zorm_encrypt(plain, kPlainLength, cipher, &length);
  return code == 0 ? std::string(cipher, cipher + length) : "";
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
  void ExpectRefused() {
    const int code = m_place.Start();
    EXPECT_TRUE(code != 0 && code != kZormAlreadyStarted && code != kZormStoreDamaged) << code;
  }

  const Place m_place;
  std::string m_cipher, m_content;
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
    WriteWholeFile(path + ".tmp", "of a writer that was killed");
    ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " removed"));
    ASSERT_TRUE(fs::remove(path));
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " is a pipe"));
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    ASSERT_NO_FATAL_FAILURE(ExpectHealed(path + " is open to others"));
  }
}

TEST_F(ZormStoreTest, ReportsDamageAsOftenAsAskedUntilBothFilesAreDeleted) {
  for (const std::string& other : {m_place.store, m_place.backup}) {
    WriteWholeFile(m_place.store, m_content.substr(1));
    WriteWholeFile(m_place.backup, m_content.substr(1));
    EXPECT_EQ(m_place.Start(), kZormStoreDamaged);
    fs::remove(other);
    EXPECT_EQ(m_place.Start(), kZormStoreDamaged) << "one is damaged, one is missing";
    EXPECT_EQ(Encrypted(), "");
  }
  EXPECT_NE(ReadWholeFile(m_place.log).find("no intact file is left"), std::string::npos);
  EXPECT_EQ(ReadWholeFile(m_place.log).find(m_place.home), std::string::npos);
  fs::remove(m_place.store);
  EXPECT_EQ(m_place.Start(), 0);
  EXPECT_FALSE(Opens(m_cipher));
  EXPECT_TRUE(Opens(Encrypted()));
}

TEST_F(ZormStoreTest, FollowsTheMainFileWhenTheTwoHoldDifferentKeys) {
  const Place other;
  ASSERT_EQ(other.Start(), 0);
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  WriteWholeFile(m_place.backup, ReadWholeFile(other.store));
  ExpectHealed("backup of another key");
}

// A link to itself can be neither read nor taken for a missing file, whoever asks.
TEST_F(ZormStoreTest, TakesNothingForDamagedThatItCannotReadOrWrite) {
  for (const std::string& path : {m_place.store, m_place.backup}) {
    fs::remove(path);
    fs::create_symlink(path, path);
    ExpectRefused();
    fs::remove(path);
    fs::create_directory(path + ".tmp");
    ExpectRefused();
    fs::remove(path + ".tmp");
    ASSERT_NO_FATAL_FAILURE(ExpectHealed(path));
  }
}

TEST_F(ZormStoreTest, MakesLongPathsForItselfAlone) {
  std::string home = m_place.directory.Path();
  for (int i = 0; i < 12; ++i) home += "/" + std::string(100, static_cast<char>('a' + i));
  const std::string store = home + "/store.dat", backup = home + "/store_bak.dat";
  const mode_t before = ::umask(0);
  const int code = orb_zorm_service_start_ex("", store.c_str(), backup.c_str());
  (void)::umask(before);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(ModeOf(fs::path(home).parent_path()), 0700u);
  EXPECT_EQ(ModeOf(home), 0700u);
  for (const auto& entry : fs::directory_iterator(home)) EXPECT_EQ(ModeOf(entry.path()), 0600u);
}

// A child whose body stops itself.
template <class Body>
pid_t StoppedChild(Body body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, WUNTRACED), child);
  EXPECT_TRUE(WIFSTOPPED(status));
  return child;
}

int EndOf(pid_t child, int signal) {
  EXPECT_EQ(::kill(child, signal), 0);
  return support::WaitFor(child);
}

TEST_F(ZormStoreTest, KeepsAnotherProcessOutUntilTheStopOrTheDeathOfTheFirst) {
  const pid_t second = StoppedChild([this] { return ::raise(SIGSTOP) == 0 ? m_place.Start() : 1; });
  ASSERT_EQ(m_place.Start(), 0);
  EXPECT_EQ(EndOf(second, SIGCONT), kZormAlreadyStarted);
  EXPECT_TRUE(Opens(m_cipher));
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  const pid_t first = StoppedChild([this] { return m_place.Start() == 0 ? ::raise(SIGSTOP) : 1; });
  EXPECT_EQ(m_place.Start(), kZormAlreadyStarted);
  EXPECT_EQ(EndOf(first, SIGKILL), -SIGKILL);
  EXPECT_EQ(m_place.Start(), 0);
  EXPECT_TRUE(Opens(m_cipher));
  const pid_t forkedMeanwhile = StoppedChild([] { return ::raise(SIGSTOP); });
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  EXPECT_EQ(m_place.Start(), 0) << "although a forked child lives on";
  EXPECT_EQ(EndOf(forkedMeanwhile, SIGKILL), -SIGKILL);
}

}  // namespace
