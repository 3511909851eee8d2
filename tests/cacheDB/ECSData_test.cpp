#include "cacheDB/ECSData.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <functional>
#include <new>
#include <random>
#include <thread>

#include "CacheDbTest.h"
#include "cacheDB/ConfigCacheTable.h"
#include "prax/prax_ref.h"
#include "util/Log.h"

namespace commonutil {
namespace {

namespace fs = std::filesystem;
using support::ReadWholeFile;
using support::WriteWholeFile;

constexpr char kSecret[] = "00112233445566778899AABBCCDDEEFF";
constexpr char kCountRows[] = "SELECT COUNT(*) FROM ConfigCacheTab;";

bool IsUpperHex(const std::string& text) {
  return text.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

class ECSDataTest : public CacheDbTest {
 protected:
  ECSDataTest() {
    m_ecs.SetDBPath(m_dir.Path() + "/");
    m_ecs.SetLogPath(m_dir.Path() + "/");
  }
  static std::string ReadFromCache(const std::string& sql) {
    return ReadText(*DataStorageMgr::GetInst().GetDataStorage(kCacheDbName), sql);
  }

  ECSUtil& m_ecs = ECSUtil::GetInst();
  ECSData& m_data = ECSData::GetInst();
};

TEST_F(ECSDataTest, APathThatDoesNotFitBecomesEmptyAndTheStartGoesOn) {
  const std::string directory = "/" + std::string(235, 'd');  // without its separator
  m_ecs.SetDBPath(directory);
  EXPECT_NE(m_ecs.StartZORM(), 0);
  ExpectLog({{kError, "strcpy_s error, err = 34"}});
  EXPECT_EQ(support::ZormCalls().at(0),
            "start " + m_dir.File("native_sdk.txt") + "|" + directory + "/zorm/zormStore.dat|");
}

TEST_F(ECSDataTest, RandomTextsAreHexOfTheLengthAskedForAndNeverTheSame) {
  const std::string random = m_ecs.GetRealRandom(16);
  EXPECT_EQ(random.size(), 32u);
  EXPECT_TRUE(IsUpperHex(random)) << random;
  EXPECT_NE(random, m_ecs.GetRealRandom(16));
  EXPECT_EQ(m_ecs.GetRealRandom(-1), "");
}

TEST_F(ECSDataTest, OnlyTheCipherTextOfASecretDecryptsToIt) {
  ASSERT_EQ(m_ecs.StartZORM(), 0);
  const std::string cipher = m_ecs.EncryptZorm(kSecret);
  EXPECT_TRUE(IsUpperHex(cipher)) << cipher;
  EXPECT_EQ(cipher.find(kSecret), std::string::npos);
  EXPECT_EQ(m_ecs.DecryptZorm(cipher), kSecret);
  for (const std::string& text : {std::string("0"), std::string("not hex at all"), cipher.substr(2),
                                  std::string(640, 'A')}) {  // the last does not fit the buffer
    EXPECT_EQ(m_ecs.DecryptZorm(text), "") << text;
  }
  EXPECT_EQ(support::CountLogPrefix("orb_zorm_decrypt failed. ret: ", kError), 3);
  ExpectLog({{kError, "secure function return err: 34"}, {kError, "ciperText length is 0"}});
}

TEST_F(ECSDataTest, WithoutMemoryThereIsNoTextAndALineTellsWhichBufferIsMissing) {
  ASSERT_EQ(m_ecs.StartZORM(), 0);
  const struct {
    bool encrypts;
    int allocationsBefore;
    const char* logged;
  } cases[] = {{false, 0, "pRandBuf is null!"},
               {false, 1, "pRandOut is null!"},
               {true, 0, "PRAX_MemMallocSetNull pucCipherText failed"},
               {true, 1, "MELD_MALLOC pcCipherString failed"}};
  for (const auto& c : cases) {
    PRAX_Ref_FailNext(PRAX_REF_MALLOC, 1, ENOMEM, c.allocationsBefore);
    EXPECT_EQ(c.encrypts ? m_ecs.EncryptZorm(kSecret) : m_ecs.GetRealRandom(16), "");
    ExpectLog({{kError, c.logged}});
  }
}

TEST_F(ECSDataTest, TheSaltFileHoldsTheLineAloneAndIsReadableForOwnerAndGroup) {
  EXPECT_EQ(m_ecs.GetDBKeySalt(), "");
  m_ecs.WriteLocalConfigGUID("a rather long first line|salt");
  for (const char* const line : {"replaced|salt", "in place|salt"}) {
    fs::permissions(SaltFile(), fs::perms::owner_all);
    m_ecs.WriteLocalConfigGUID(line);
    EXPECT_EQ(ReadWholeFile(SaltFile()), line);
    EXPECT_EQ(ModeOf(SaltFile()), 0640u);
    PRAX_Ref_FailNext(PRAX_REF_REPLACE_FILE, 1, EXDEV);
  }
  PRAX_Ref_FailNext(PRAX_REF_FOPEN, 1, EACCES);
  m_ecs.WriteLocalConfigGUID("in vain|salt");
  EXPECT_EQ(m_ecs.GetDBKeySalt(), "in place|salt");
  for (const auto& entry : fs::directory_iterator(m_dir.Path())) {
    EXPECT_EQ(entry.path(), SaltFile());  // nothing temporary is left
  }
}

// The line is written anew at every start: a full disk then emptied the file, and the rows were
// lost.
TEST_F(ECSDataTest, ASaltFileThatHoldsTheLineIsNotOpenedForWritingWhenItCannotBeReplaced) {
  m_ecs.WriteLocalConfigGUID("line|salt");
  const auto written = fs::last_write_time(SaltFile()) - std::chrono::hours(1);
  fs::last_write_time(SaltFile(), written);
  PRAX_Ref_FailNext(PRAX_REF_REPLACE_FILE, 1, ENOSPC);
  m_ecs.WriteLocalConfigGUID("line|salt");
  EXPECT_EQ(fs::last_write_time(SaltFile()), written);
}

TEST_F(ECSDataTest, ReadsOneBoundedLineOfTheSaltFile) {
  const std::pair<std::string, std::string> cases[] = {
      {std::string(1000, 'a'), std::string(639, 'a')},
      {"first\nsecond", "first\n"},
      {std::string("cut\0here", 8), "cut"}};
  for (const auto& [content, line] : cases) {
    WriteWholeFile(SaltFile(), content);
    EXPECT_EQ(m_ecs.GetDBKeySalt(), line);
  }
  fs::remove(SaltFile());
  fs::create_directory(SaltFile());
  EXPECT_EQ(m_ecs.GetDBKeySalt(), "");
}

// The expected key comes from an independent PBKDF2-HMAC-SHA-256. Another result would make
// every existing database unreadable.
TEST_F(ECSDataTest, TheDatabaseKeyIsFixedForASecretAndASalt) {
  m_ecs.SetDBKeySalt(kSecret, "0123456789ABCDEF0123456789ABCDEF", "line");
  EXPECT_EQ(m_ecs.GetPwdKeyFromORB(),
            "5941ED2D778802A2C9B0BBFAB4E3E96B0BB0CA54D3AEDCA2A86965BA1428008A");
  ExpectLog({{kError, "orb_pkcs5_derivekey_ex success."}});
  EXPECT_EQ(ReadWholeFile(SaltFile()), "line");
}

// The key is another one: the database is made anew, and must not meet its predecessor's log.
TEST_F(ECSDataTest, ADatabaseMadeAnewMeetsNothingOfItsPredecessor) {
  EXPECT_FALSE(m_data.CheckSDKCacheDB(DbFile(), "key one"));
  ASSERT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key one"));
  ExpectLog({{kError, "cachedb is not exist"}, {kInfo, "cachedb can open", 0}});
  for (const char* const suffix : kSideFiles) WriteWholeFile(m_dir.File("kept") + suffix, "no use");
  for (const char* const suffix : {"-wal", "-shm"}) {
    WriteWholeFile(m_dir.File("kept") + suffix, ReadWholeFile(DbFile() + suffix));
  }
  DataStorageMgr::GetInst().Uninit();
  for (const char* const suffix : kSideFiles) {
    fs::rename(m_dir.File("kept") + suffix, DbFile() + suffix);
  }
  EXPECT_FALSE(m_data.CheckSDKCacheDB(DbFile(), "key two"));
  EXPECT_TRUE(m_data.FinalizeSDKCacheDB(DbFile()));
  EXPECT_TRUE(fs::is_empty(m_dir.Path()));
  EXPECT_EQ(DataStorageMgr::GetInst().GetDataStorage(kCacheDbName), nullptr);
  EXPECT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key two"));
  EXPECT_EQ(ReadFromCache(kCountRows), "0");
  EXPECT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key two"));
  EXPECT_TRUE(m_data.FinalizeSDKCacheDB(m_dir.File("no such file")));
  ExpectLog({{kInfo, "cachedb can open"}, {kWarning, " delete sdkcache.db fail"}});
}

// Taken as it is: deriving one in each of the starts would take most of the time.
constexpr char kRawKey[] = "raw:000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F";

// Adds rows one by one and in batches until it is killed, and reports the last one that is stored.
[[noreturn]] void AddRowsForEver(const std::string& file, int first, std::atomic<int>& reported) {
  bool works = ECSData::GetInst().InitializeSDKCaCheDB(file, kRawKey);
  while (works) {
    const int last = first % 2 == 0 ? first + 30 : first;
    ConfigCacheList rows;
    for (; first <= last; ++first) {
      rows.push_back({0, "key" + std::to_string(first), std::to_string(last)});
    }
    works = AddConfigCacheCommand().BatchAdd(rows) == static_cast<int>(rows.size());
    if (works) reported = last;
  }
  reported = INT_MAX;
  ::_exit(1);
}

TEST_F(ECSDataTest, EveryRowThatWasReportedIsThereAfterKillNineAndNoBatchInPart) {
  constexpr int kReadWrite = PROT_READ | PROT_WRITE;
  constexpr int kShared = MAP_SHARED | MAP_ANONYMOUS;
  void* const memory = ::mmap(nullptr, sizeof(std::atomic<int>), kReadWrite, kShared, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto& reported = *new (memory) std::atomic<int>(0);
  std::minstd_rand random(20240607);
  int stored = 0;
  for (int round = 0; round < 50; ++round) {
    const pid_t child = ::fork();
    if (child == 0) AddRowsForEver(DbFile(), stored + 1, reported);
    const int enough = stored + static_cast<int>(random() % 600);
    while (reported <= enough) std::this_thread::yield();
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    ASSERT_TRUE(m_data.CheckSDKCacheDB(DbFile(), kRawKey));
    stored = std::stoi(ReadFromCache(kCountRows));
    ASSERT_GE(stored, reported) << "round " << round;
    ASSERT_EQ(ReadFromCache("PRAGMA integrity_check;"), "ok");
    ASSERT_EQ(ReadFromCache("SELECT MAX(CAST(VALUE AS INTEGER)) FROM ConfigCacheTab;"),
              std::to_string(stored));  // each row tells the last one of its batch
    DataStorageMgr::GetInst().Uninit();
  }
  ::munmap(memory, sizeof(std::atomic<int>));
}

}  // namespace
}  // namespace commonutil
