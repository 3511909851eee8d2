#include "cacheDB/ECSData.h"

#include <cerrno>
#include <chrono>

#include "CacheDbTest.h"
#include "prax/prax_ref.h"
#include "util/Log.h"

namespace commonutil {
namespace {

namespace fs = std::filesystem;
using support::ReadWholeFile;
using support::WriteWholeFile;

constexpr char kSecret[] = "00112233445566778899AABBCCDDEEFF";

class ECSDataTest : public CacheDbTest {
 protected:
  ECSDataTest() {
    m_ecs.SetDBPath(m_dir.Path() + "/");
    m_ecs.SetLogPath(m_dir.Path() + "/");
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

TEST_F(ECSDataTest, OnlyTheCipherTextOfASecretDecryptsToIt) {
  ASSERT_EQ(m_ecs.StartZORM(), 0);
  const std::string cipher = m_ecs.EncryptZorm(kSecret);
  EXPECT_EQ(m_ecs.DecryptZorm(cipher), kSecret);
  for (const std::string& text : {"0" + cipher, cipher.substr(2), std::string(640, 'A')}) {
    EXPECT_EQ(m_ecs.DecryptZorm(text), "") << text;
  }
  EXPECT_EQ(support::CountLogPrefix("orb_zorm_decrypt failed. ret: ", kError), 2);
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

TEST_F(ECSDataTest, ADatabaseThatFoundNoMemoryIsUnknownAndADamagedOneIsNot) {
  EXPECT_TRUE(m_data.IsUnknown());
  WriteWholeFile(DbFile(), std::string(4096, 'x'));
  EXPECT_FALSE(m_data.CheckSDKCacheDB(DbFile(), "key"));
  EXPECT_FALSE(m_data.IsUnknown());
}

// The key is another one: the database is made anew, and must not meet its predecessor's log.
TEST_F(ECSDataTest, ADatabaseMadeAnewMeetsNothingOfItsPredecessor) {
  EXPECT_FALSE(m_data.CheckSDKCacheDB(DbFile(), "key one"));
  ASSERT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key one"));
  ExpectLog({{kError, "cachedb is not exist"}, {kInfo, "cachedb can open", 0}});
  const std::string log = ReadWholeFile(DbFile() + "-wal");
  DataStorageMgr::GetInst().Uninit();
  for (const char* const suffix : kSideFiles) WriteWholeFile(DbFile() + suffix, log);
  EXPECT_FALSE(m_data.CheckSDKCacheDB(DbFile(), "key two"));
  EXPECT_TRUE(m_data.FinalizeSDKCacheDB(DbFile()));
  EXPECT_TRUE(fs::is_empty(m_dir.Path()));
  EXPECT_EQ(DataStorageMgr::GetInst().GetDataStorage(kCacheDbName), nullptr);
  EXPECT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key two"));
  IDataStorage* const storage = DataStorageMgr::GetInst().GetDataStorage(kCacheDbName);
  EXPECT_EQ(ReadText(*storage, "SELECT COUNT(*) FROM ConfigCacheTab;"), "0");
  EXPECT_TRUE(m_data.InitializeSDKCaCheDB(DbFile(), "key two"));
  EXPECT_TRUE(m_data.FinalizeSDKCacheDB(m_dir.File("no such file")));
  ExpectLog({{kInfo, "cachedb can open"}, {kWarning, " delete sdkcache.db fail"}});
}

}  // namespace
}  // namespace commonutil
