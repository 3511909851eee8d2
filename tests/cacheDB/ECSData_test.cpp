#include "cacheDB/ECSData.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <random>

#include "CacheDbTest.h"
#include "cacheDB/ConfigCacheTable.h"
#include "prax/prax_ref.h"
#include "util/Log.h"

namespace commonutil {
namespace {

using support::CountLog;
using support::ReadWholeFile;
using support::WriteWholeFile;

constexpr char kSecret[] = "00112233445566778899AABBCCDDEEFF";
constexpr char kSalt[] = "0123456789ABCDEF0123456789ABCDEF";

bool IsUpperHex(const std::string& text) {
  return text.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

class ECSDataTest : public CacheDbTest {
 protected:
  ECSDataTest() {
    m_ecs.SetDBPath(m_dir.Path() + "/");
    m_ecs.SetLogPath(m_dir.Path() + "/");
  }
  std::string SaltFile() const { return m_dir.File("sdkcache_config.db"); }

  ECSUtil& m_ecs = ECSUtil::GetInst();
  ECSData& m_data = ECSData::GetInst();
};

TEST_F(ECSDataTest, KeyManagementGetsItsFilesWithOrWithoutATrailingSeparator) {
  const std::string expected = "start " + m_dir.File("native_sdk.txt") + "|" +
                               m_dir.File("zorm/zormStore.dat") + "|" +
                               m_dir.File("zorm/zormStore_bak.dat");
  EXPECT_EQ(m_ecs.StartZORM(), 0);
  m_ecs.StopZORM();
  m_ecs.SetDBPath(m_dir.Path());
  m_ecs.SetLogPath(m_dir.Path());
  EXPECT_EQ(m_ecs.StartZORM(), 0);
  m_ecs.StopZORM();
  EXPECT_EQ(support::ZormCalls(), (std::vector<std::string>{expected, "stop", expected, "stop"}));
  EXPECT_EQ(m_ecs.GetConfigPath(), m_dir.Path() + "sdkcache_config.db");  // joined as it is
}

TEST_F(ECSDataTest, PathsThatDoNotFitBecomeEmptyAndTheStartGoesOn) {
  m_ecs.SetDBPath("/" + std::string(240, 'd'));  // both store files are over, the log file is not
  EXPECT_NE(m_ecs.StartZORM(), 0);
  EXPECT_EQ(CountLog("strcpy_s error, err = 68", kError), 1);
  EXPECT_EQ(support::ZormCalls(),
            (std::vector<std::string>{"start " + m_dir.File("native_sdk.txt") + "||"}));
}

TEST_F(ECSDataTest, RandomTextsAreHexOfTheLengthAskedForAndNeverTheSame) {
  const std::string random = m_ecs.GetRealRandom(16);
  EXPECT_EQ(random.size(), 32u);
  EXPECT_TRUE(IsUpperHex(random)) << random;
  EXPECT_NE(random, m_ecs.GetRealRandom(16));
  EXPECT_EQ(m_ecs.GetRealRandom(0), "");
  EXPECT_EQ(m_ecs.GetRealRandom(-1), "");
  EXPECT_EQ(CountLog("pRandBuf is null!", kError), 2);
}

TEST_F(ECSDataTest, ASecretComesBackFromItsCipherTextWhichFitsTheSaltFile) {
  ASSERT_EQ(m_ecs.StartZORM(), 0);
  const std::string cipher = m_ecs.EncryptZorm(kSecret);
  EXPECT_TRUE(IsUpperHex(cipher)) << cipher;
  EXPECT_EQ(cipher.find(kSecret), std::string::npos);
  EXPECT_LE(cipher.size() + 1 + sizeof kSalt - 1, 639u);
  EXPECT_EQ(m_ecs.DecryptZorm(cipher), kSecret);
}

TEST_F(ECSDataTest, WhatIsNoCipherTextDecryptsToNothing) {
  ASSERT_EQ(m_ecs.StartZORM(), 0);
  const std::string cipher = m_ecs.EncryptZorm(kSecret);
  EXPECT_EQ(m_ecs.DecryptZorm(""), "");
  EXPECT_EQ(CountLog("ciperText length is 0", kError), 1);
  for (const std::string& text : {std::string("0"), std::string("not hex at all"), cipher.substr(2),
                                  cipher + "00", std::string(639, 'A')}) {
    EXPECT_EQ(m_ecs.DecryptZorm(text), "") << text;
  }
  EXPECT_EQ(support::CountLogPrefix("orb_zorm_decrypt failed. ret: ", kError), 5);
  EXPECT_EQ(m_ecs.DecryptZorm(std::string(640, 'A')), "");  // does not fit the buffer
  EXPECT_EQ(CountLog("secure function return err: 34", kError), 1);
  EXPECT_EQ(CountLog("ciperText length is 0", kError), 2);
}

TEST_F(ECSDataTest, WithoutMemoryThereIsNoTextAndALineTellsWhichBufferIsMissing) {
  ASSERT_EQ(m_ecs.StartZORM(), 0);
  PRAX_Ref_FailNext(PRAX_REF_MALLOC, 1, ENOMEM);
  EXPECT_EQ(m_ecs.GetRealRandom(16), "");
  EXPECT_EQ(CountLog("pRandBuf is null!", kError), 1);
  PRAX_Ref_FailNext(PRAX_REF_MALLOC, 1, ENOMEM, 1);
  EXPECT_EQ(m_ecs.GetRealRandom(16), "");
  EXPECT_EQ(CountLog("pRandOut is null!", kError), 1);
  PRAX_Ref_FailNext(PRAX_REF_MALLOC, 1, ENOMEM);
  EXPECT_EQ(m_ecs.EncryptZorm(kSecret), "");
  EXPECT_EQ(CountLog("PRAX_MemMallocSetNull pucCipherText failed", kError), 1);
  PRAX_Ref_FailNext(PRAX_REF_MALLOC, 1, ENOMEM, 1);
  EXPECT_EQ(m_ecs.EncryptZorm(kSecret), "");
  EXPECT_EQ(CountLog("MELD_MALLOC pcCipherString failed", kError), 1);
}

TEST_F(ECSDataTest, ASaltFileThatCannotBeReplacedIsWrittenInPlace) {
  WriteWholeFile(SaltFile(), "a rather long first line|salt");
  std::filesystem::permissions(SaltFile(), std::filesystem::perms::owner_all);
  PRAX_Ref_FailNext(PRAX_REF_REPLACE_FILE, 1, EXDEV);
  m_ecs.WriteLocalConfigGUID("line|salt");
  EXPECT_EQ(ReadWholeFile(SaltFile()), "line|salt");
  EXPECT_EQ(static_cast<unsigned int>(std::filesystem::status(SaltFile()).permissions()), 0640u);

  PRAX_Ref_FailNext(PRAX_REF_REPLACE_FILE, 1, EXDEV);
  PRAX_Ref_FailNext(PRAX_REF_FOPEN, 1, EACCES);
  support::ClearLog();
  m_ecs.WriteLocalConfigGUID("other|salt");  // in vain, and without a word
  EXPECT_EQ(ReadWholeFile(SaltFile()), "line|salt");
  EXPECT_TRUE(support::LogLines().empty());
}

// The line is written anew at every start: a full disk then emptied the file, and the rows were
// lost.
TEST_F(ECSDataTest, ASaltFileThatHoldsTheLineIsNotOpenedForWritingWhenItCannotBeReplaced) {
  m_ecs.WriteLocalConfigGUID("line|salt");
  const auto written = std::filesystem::last_write_time(SaltFile()) - std::chrono::hours(1);
  std::filesystem::last_write_time(SaltFile(), written);
  PRAX_Ref_FailNext(PRAX_REF_REPLACE_FILE, 1, ENOSPC);
  m_ecs.WriteLocalConfigGUID("line|salt");
  EXPECT_EQ(std::filesystem::last_write_time(SaltFile()), written);
}

TEST_F(ECSDataTest, TheSaltFileHoldsTheLineAloneAndIsReadableForOwnerAndGroup) {
  EXPECT_EQ(m_ecs.GetDBKeySalt(), "");
  m_ecs.WriteLocalConfigGUID("a rather long first line|salt");
  m_ecs.WriteLocalConfigGUID("line|salt");
  EXPECT_EQ(ReadWholeFile(SaltFile()), "line|salt");
  EXPECT_EQ(static_cast<unsigned int>(std::filesystem::status(SaltFile()).permissions()), 0640u);
  EXPECT_EQ(m_ecs.GetDBKeySalt(), "line|salt");
  for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path())) {
    EXPECT_EQ(entry.path().filename(), "sdkcache_config.db");  // nothing temporary is left
  }
}

TEST_F(ECSDataTest, ReadsOneBoundedLineOfTheSaltFile) {
  WriteWholeFile(SaltFile(), std::string(1000, 'a'));
  EXPECT_EQ(m_ecs.GetDBKeySalt(), std::string(639, 'a'));
  WriteWholeFile(SaltFile(), "first\nsecond");
  EXPECT_EQ(m_ecs.GetDBKeySalt(), "first\n");
  WriteWholeFile(SaltFile(), std::string("cut\0here", 8));
  EXPECT_EQ(m_ecs.GetDBKeySalt(), "cut");
  std::filesystem::remove(SaltFile());
  std::filesystem::create_directory(SaltFile());
  EXPECT_EQ(m_ecs.GetDBKeySalt(), "");
}

// The expected keys come from an independent PBKDF2-HMAC-SHA-256. Another result would make
// every existing database unreadable.
TEST_F(ECSDataTest, TheDatabaseKeyIsFixedForASecretAndASalt) {
  m_ecs.SetDBKeySalt(kSecret, kSalt, "line");
  EXPECT_EQ(m_ecs.GetPwdKeyFromORB(),
            "5941ED2D778802A2C9B0BBFAB4E3E96B0BB0CA54D3AEDCA2A86965BA1428008A");
  EXPECT_EQ(CountLog("orb_pkcs5_derivekey_ex success.", kError), 1);
  EXPECT_EQ(ReadWholeFile(SaltFile()), "line");
  m_ecs.SetDBKeySalt(kSecret, "", "line");
  EXPECT_EQ(m_ecs.GetPwdKeyFromORB(),
            "5D9978A330E4FC7DE96D0AEF5E8851E72A5644FC62271BD8F4F3F82FD451F78A");
}

TEST_F(ECSDataTest, HexTextHasUpperCaseDigitsAndNoTerminator) {
  const char in[] = {'\x00', '\x7F', '\x80', '\xFA'};
  char out[] = "..........";
  int length = -1;
  m_ecs.StrToHex(in, 4, out, &length);
  EXPECT_STREQ(out, "007F80FA..");
  EXPECT_EQ(length, 8);
  m_ecs.StrToHex(in, 0, out, &length);
  EXPECT_EQ(length, 0);
  m_ecs.StrToHex(in, -1, out, &length);
  EXPECT_STREQ(out, "007F80FA..");
  EXPECT_GE(length, 0);
}

TEST_F(ECSDataTest, InitialisationCreatesTheDatabaseAndOpensItAgain) {
  EXPECT_FALSE(m_data.CheckSDKCacheDB(DbFile(), "key one"));
  EXPECT_EQ(CountLog("cachedb is not exist", kError), 1);
  EXPECT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key one"));
  IDataStorage* const storage = DataStorageMgr::GetInst().GetDataStorage(kCacheDbName);
  EXPECT_EQ(ReadText(*storage, "SELECT COUNT(*) FROM ConfigCacheTab;"), "0");
  EXPECT_EQ(ReadText(*storage,
                     "SELECT COUNT(*) FROM sqlite_master WHERE name = "
                     "'CONFIGCACHE_UNIQUE_INDEX';"),
            "1");
  EXPECT_TRUE(m_data.CheckSDKCacheDB(DbFile(), "key one"));
  EXPECT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key one"));
  EXPECT_EQ(CountLog("cachedb can open", kInfo), 1);
}

TEST_F(ECSDataTest, DiscardingClosesAndUnregistersAndAlwaysSucceeds) {
  ASSERT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key one"));
  support::ClearLog();
  EXPECT_TRUE(m_data.FinalizeSDKCacheDB(m_dir.File("no such file")));
  EXPECT_EQ(CountLog("[sdkcache.db] sqlite3_close() resCode = 0", kInfo), 1);
  EXPECT_EQ(CountLog("~SQLiteDB", kInfo), 1);
  EXPECT_EQ(CountLog("SQLiteDB is not opened yet !", kWarning), 1);
  EXPECT_EQ(CountLog(" delete sdkcache.db fail", kWarning), 1);
  EXPECT_EQ(DataStorageMgr::GetInst().GetDataStorage(kCacheDbName), nullptr);
}

// The key is another one: the database is made anew, and must not meet its predecessor's log.
TEST_F(ECSDataTest, ADatabaseMadeAnewMeetsNothingOfItsPredecessor) {
  ASSERT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key one"));
  for (const char* const suffix : {"-wal", "-shm"}) {
    std::filesystem::copy_file(DbFile() + suffix, m_dir.File("kept") + suffix);
  }
  DataStorageMgr::GetInst().Uninit();
  for (const char* const suffix : {"-wal", "-shm"}) {
    std::filesystem::copy_file(m_dir.File("kept") + suffix, DbFile() + suffix);
  }
  WriteWholeFile(DbFile() + "-journal", "of no use");
  EXPECT_FALSE(m_data.CheckSDKCacheDB(DbFile(), "key two"));
  EXPECT_TRUE(m_data.FinalizeSDKCacheDB(DbFile()));
  for (const char* const suffix : {"", "-journal", "-wal", "-shm"}) {
    EXPECT_FALSE(std::filesystem::exists(DbFile() + suffix)) << suffix;
  }
  EXPECT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key two"));
  IDataStorage* const storage = DataStorageMgr::GetInst().GetDataStorage(kCacheDbName);
  EXPECT_EQ(ReadText(*storage, "SELECT COUNT(*) FROM ConfigCacheTab;"), "0");
}

// Taken as it is: deriving one in each of the starts would take most of the time.
constexpr char kRawKey[] = "raw:000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F";

// Adds rows one by one and in batches until it is killed, and writes down each number that is done.
[[noreturn]] void AddRowsForEver(const std::string& file, int first, int acknowledged) {
  constexpr int kBatch = 30;
  if (!ECSData::GetInst().InitializeSDKCaCheDB(file, kRawKey)) ::_exit(1);
  for (int next = first;; ++next) {
    ConfigCacheList rows;
    const int end = next % 2 == 0 ? next + kBatch : next + 1;
    for (; next < end; ++next)
      rows.push_back({0, "key" + std::to_string(next), std::to_string(end - 1)});
    --next;
    if (AddConfigCacheCommand().BatchAdd(rows) != static_cast<int>(rows.size())) ::_exit(2);
    if (::write(acknowledged, &next, sizeof(next)) != sizeof(next)) ::_exit(3);
  }
}

TEST_F(ECSDataTest, EveryRowThatWasReportedIsThereAfterKillNineAndNoBatchInPart) {
  std::mt19937 random(20240607);
  int last = 0;  // the greatest number known to be stored
  for (int round = 0; round < 50; ++round) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) AddRowsForEver(DbFile(), last + 1, ends[1]);
    ::close(ends[1]);
    const int reports = std::uniform_int_distribution<int>(0, 40)(random);
    for (int i = 0; i <= reports; ++i) {
      ASSERT_EQ(::read(ends[0], &last, sizeof(last)), static_cast<ssize_t>(sizeof(last)));
    }
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    while (::read(ends[0], &last, sizeof(last)) == sizeof(last)) continue;
    ::close(ends[0]);

    ASSERT_TRUE(m_data.CheckSDKCacheDB(DbFile(), kRawKey));
    IDataStorage* const storage = DataStorageMgr::GetInst().GetDataStorage(kCacheDbName);
    const int count = std::stoi(ReadText(*storage, "SELECT COUNT(*) FROM ConfigCacheTab;"));
    ASSERT_EQ(ReadText(*storage, "PRAGMA integrity_check;"), "ok");
    ASSERT_GE(count, last) << "round " << round;
    ASSERT_EQ(ReadText(*storage, "SELECT MAX(CAST(VALUE AS INTEGER)) FROM ConfigCacheTab;"),
              std::to_string(count));  // each row tells the last one of its batch
    last = count;                      // a last one was stored, but not reported any more
    DataStorageMgr::GetInst().Uninit();
    support::ClearLog();
  }
}

}  // namespace
}  // namespace commonutil
