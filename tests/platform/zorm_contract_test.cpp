// What every implementation of key management shows, whatever is behind it.
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/TempDir.h"
#include "zel_platform/zorm.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kUntouched = 0x5C;
constexpr unsigned int kUntouchedLength = 400;

unsigned int LengthOf(const Bytes& bytes) { return static_cast<unsigned int>(bytes.size()); }

struct Output {
  int code;
  unsigned int length = kUntouchedLength;
  Bytes buffer = Bytes(kUntouchedLength, kUntouched);

  bool IsUntouched(unsigned int capacity) const {
    return length == capacity && buffer == Bytes(kUntouchedLength, kUntouched);
  }
  Bytes Content() const { return Bytes(buffer.begin(), buffer.begin() + length); }
};

Output Encrypt(const Bytes& plain, unsigned int capacity = kUntouchedLength) {
  Output out{};
  out.length = capacity;
  out.code = orb_zorm_encrypt(plain.data(), LengthOf(plain), out.buffer.data(), &out.length);
  return out;
}

Output Decrypt(const Bytes& cipher, unsigned int capacity = kUntouchedLength) {
  Output out{};
  out.length = capacity;
  out.code = orb_zorm_decrypt(cipher.data(), LengthOf(cipher), out.buffer.data(), &out.length);
  return out;
}

class ZormContractTest : public testing::Test {
 protected:
  ~ZormContractTest() override { (void)orb_zorm_service_stop(); }

  int Start(const std::string& store = "zorm") {
    return orb_zorm_service_start_ex(m_directory.File("log.txt").c_str(),
                                     m_directory.File(store + "/store.dat").c_str(),
                                     m_directory.File(store + "/store_bak.dat").c_str());
  }

  const support::TempDir m_directory;
  const Bytes m_plain = Bytes(32, 'p');
};

TEST_F(ZormContractTest, GivesTextsOfEveryLengthBack) {
  ASSERT_EQ(Start(), 0);
  for (const unsigned int length : {0u, 1u, 16u, 32u, 255u}) {
    SCOPED_TRACE(length);
    Bytes plain(length);
    for (unsigned int i = 0; i < length; ++i) plain[i] = static_cast<unsigned char>(i);
    unsigned int expected = 0;
    ASSERT_EQ(orb_zorm_get_ciper_len(length, &expected), 0);
    const Output cipher = Encrypt(plain, expected);
    ASSERT_EQ(cipher.code, 0);
    ASSERT_EQ(cipher.length, expected);
    const Output opened = Decrypt(cipher.Content(), length);
    ASSERT_EQ(opened.code, 0);
    EXPECT_EQ(opened.Content(), plain);
  }
}

TEST_F(ZormContractTest, KeepsTheCipherTextOfTheSecretShortEnoughForItsFile) {
  unsigned int length = 0;
  ASSERT_EQ(orb_zorm_get_ciper_len(32, &length), 0);
  EXPECT_GT(length, 32u);
  EXPECT_LE(length, 303u);
  EXPECT_NE(orb_zorm_get_ciper_len(UINT_MAX, &length), 0);
  EXPECT_NE(orb_zorm_get_ciper_len(32, nullptr), 0);
}

TEST_F(ZormContractTest, NeverMakesTheSameCipherTextTwice) {
  ASSERT_EQ(Start(), 0);
  const Output first = Encrypt(m_plain), second = Encrypt(m_plain);
  ASSERT_EQ(first.code, 0);
  EXPECT_NE(first.Content(), second.Content());
}

TEST_F(ZormContractTest, OpensAnEarlierCipherTextAfterARestart) {
  ASSERT_EQ(Start(), 0);
  const Output cipher = Encrypt(m_plain);
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  ASSERT_EQ(Start(), 0);
  const Output opened = Decrypt(cipher.Content());
  ASSERT_EQ(opened.code, 0);
  EXPECT_EQ(opened.Content(), m_plain);
}

TEST_F(ZormContractTest, RefusesEveryChangedByteAndEveryOtherLength) {
  ASSERT_EQ(Start(), 0);
  const Bytes cipher = Encrypt(m_plain).Content();
  for (std::size_t i = 0; i < cipher.size(); ++i) {
    Bytes changed = cipher;
    changed[i] ^= 0x20;
    for (const Bytes& wrong : {changed, Bytes(cipher.data(), cipher.data() + i)}) {
      const Output opened = Decrypt(wrong);
      ASSERT_NE(opened.code, 0) << "byte " << i;
      ASSERT_TRUE(opened.IsUntouched(kUntouchedLength)) << "byte " << i;
    }
  }
  Bytes longer = cipher;
  longer.push_back(0);
  EXPECT_NE(Decrypt(longer).code, 0);
  // What a conversion of text that is no hex leaves behind.
  EXPECT_NE(Decrypt(Bytes(60, 0)).code, 0);
}

TEST_F(ZormContractTest, RefusesACipherTextOfAnotherStore) {
  ASSERT_EQ(Start("one"), 0);
  const Bytes cipher = Encrypt(m_plain).Content();
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  ASSERT_EQ(Start("two"), 0);
  const Output opened = Decrypt(cipher);
  EXPECT_NE(opened.code, 0);
  EXPECT_TRUE(opened.IsUntouched(kUntouchedLength));
}

TEST_F(ZormContractTest, LeavesABufferAloneThatIsTooSmall) {
  ASSERT_EQ(Start(), 0);
  const Output cipher = Encrypt(m_plain);
  ASSERT_EQ(cipher.code, 0);
  const unsigned int cipherShort = cipher.length - 1;
  const Output encrypted = Encrypt(m_plain, cipherShort);
  EXPECT_NE(encrypted.code, 0);
  EXPECT_TRUE(encrypted.IsUntouched(cipherShort));
  const Output opened = Decrypt(cipher.Content(), LengthOf(m_plain) - 1);
  EXPECT_NE(opened.code, 0);
  EXPECT_TRUE(opened.IsUntouched(LengthOf(m_plain) - 1));
}

TEST_F(ZormContractTest, WorksOnlyBetweenStartAndStop) {
  EXPECT_NE(Encrypt(m_plain).code, 0);
  ASSERT_EQ(Start(), 0);
  const Bytes cipher = Encrypt(m_plain).Content();
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  const Output encrypted = Encrypt(m_plain), opened = Decrypt(cipher);
  EXPECT_NE(encrypted.code, 0);
  EXPECT_TRUE(encrypted.IsUntouched(kUntouchedLength));
  EXPECT_NE(opened.code, 0);
  EXPECT_TRUE(opened.IsUntouched(kUntouchedLength));
}

TEST_F(ZormContractTest, ReportsASecondStartAndRunsOnUntilItIsStopped) {
  ASSERT_EQ(Start(), 0);
  const Bytes cipher = Encrypt(m_plain).Content();
  EXPECT_EQ(Start(), kZormAlreadyStarted);
  EXPECT_EQ(Start("another"), kZormAlreadyStarted);
  EXPECT_EQ(Decrypt(cipher).code, 0);
  EXPECT_EQ(orb_zorm_service_stop(), 0);
  EXPECT_EQ(Start(), 0);
}

TEST_F(ZormContractTest, StopsWithoutComplaintWhenItIsNotRunning) {
  EXPECT_EQ(orb_zorm_service_stop(), 0);
  ASSERT_EQ(Start(), 0);
  EXPECT_EQ(orb_zorm_service_stop(), 0);
  EXPECT_EQ(orb_zorm_service_stop(), 0);
}

TEST_F(ZormContractTest, RefusesAStoreWithoutAPlace) {
  support::WriteWholeFile(m_directory.File("file"), "in the way");
  const std::string below = m_directory.File("file/zorm/store.dat");
  const std::string good = m_directory.File("zorm/store.dat");
  for (const auto& [store, backup] : std::vector<std::pair<std::string, std::string>>{
           {"", good}, {good, ""}, {below, good}, {good, below}}) {
    const int code = orb_zorm_service_start_ex("", store.c_str(), backup.c_str());
    EXPECT_NE(code, 0);
    EXPECT_NE(code, kZormAlreadyStarted);
    EXPECT_NE(code, kZormStoreDamaged);
  }
  EXPECT_NE(orb_zorm_service_start_ex(nullptr, nullptr, nullptr), 0);
  EXPECT_NE(Encrypt(m_plain).code, 0);
  EXPECT_EQ(Start(), 0);
}

TEST_F(ZormContractTest, StartsWithoutAUsableLog) {
  const std::string store = m_directory.File("zorm/store.dat");
  const std::string backup = m_directory.File("zorm/store_bak.dat");
  for (const std::string& log : {std::string(), m_directory.Path(), m_directory.File("no/log")}) {
    EXPECT_EQ(orb_zorm_service_start_ex(log.c_str(), store.c_str(), backup.c_str()), 0) << log;
    EXPECT_EQ(orb_zorm_service_stop(), 0);
  }
  EXPECT_EQ(orb_zorm_service_start_ex(nullptr, store.c_str(), backup.c_str()), 0);
}

TEST_F(ZormContractTest, GivesRightResultsOrNoneWhileAnotherThreadStopsAndStarts) {
  ASSERT_EQ(Start(), 0);
  const Bytes cipher = Encrypt(m_plain).Content();
  const auto useIt = [&] {
    for (int i = 0; i < 500; ++i) {
      const Output encrypted = Encrypt(m_plain), opened = Decrypt(cipher);
      if (encrypted.code != 0) {
        EXPECT_TRUE(encrypted.IsUntouched(kUntouchedLength));
      }
      if (opened.code == 0) {
        EXPECT_EQ(opened.Content(), m_plain);
      }
    }
  };
  std::thread first(useIt), second(useIt);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(orb_zorm_service_stop(), 0);
    EXPECT_EQ(Start(), 0);
  }
  first.join();
  second.join();
  EXPECT_EQ(Decrypt(cipher).Content(), m_plain);
}

}  // namespace
