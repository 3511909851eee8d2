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

TEST_F(ZormContractTest, GivesTextsOfEveryLengthBackAlsoAfterARestart) {
  for (const unsigned int length : {0u, 1u, 16u, 32u, 255u}) {
    SCOPED_TRACE(length);
    ASSERT_EQ(Start(), 0);
    Bytes plain(length);
    for (unsigned int i = 0; i < length; ++i) plain[i] = static_cast<unsigned char>(i);
    unsigned int expected = 0;
    ASSERT_EQ(orb_zorm_get_ciper_len(length, &expected), 0);
    const Output cipher = Encrypt(plain, expected);
    ASSERT_EQ(cipher.code, 0);
    ASSERT_EQ(cipher.length, expected);
    EXPECT_NE(Encrypt(plain).Content(), cipher.Content()) << "never the same twice";
    ASSERT_EQ(orb_zorm_service_stop(), 0);
    EXPECT_EQ(orb_zorm_service_stop(), 0) << "not running";
    ASSERT_EQ(Start(), 0);
    const Output opened = Decrypt(cipher.Content(), length);
    ASSERT_EQ(opened.code, 0);
    EXPECT_EQ(opened.Content(), plain);
    ASSERT_EQ(orb_zorm_service_stop(), 0);
  }
  unsigned int length = 0;
  ASSERT_EQ(orb_zorm_get_ciper_len(32, &length), 0);
  EXPECT_LE(length, 303u) << "the file of the secret holds no more";
  EXPECT_NE(orb_zorm_get_ciper_len(UINT_MAX, &length), 0);
  EXPECT_NE(orb_zorm_get_ciper_len(32, nullptr), 0);
}

TEST_F(ZormContractTest, RefusesEveryChangeOtherStoresAndBuffersThatAreTooSmall) {
  ASSERT_EQ(Start("one"), 0);
  const Bytes cipher = Encrypt(m_plain).Content();
  std::vector<Bytes> wrongs = {Bytes(60, 0), cipher};  // of zeros: text that is no hex
  wrongs[1].push_back(0);
  for (std::size_t i = 0; i < cipher.size(); ++i) {
    wrongs.push_back(cipher);
    wrongs.back()[i] ^= 0x20;
    wrongs.emplace_back(cipher.data(), cipher.data() + i);
  }
  for (const Bytes& wrong : wrongs) {
    const Output opened = Decrypt(wrong);
    ASSERT_NE(opened.code, 0);
    ASSERT_TRUE(opened.IsUntouched(kUntouchedLength));
  }
  const Output encrypted = Encrypt(m_plain, LengthOf(cipher) - 1);
  EXPECT_NE(encrypted.code, 0);
  EXPECT_TRUE(encrypted.IsUntouched(LengthOf(cipher) - 1));
  const Output tooSmall = Decrypt(cipher, LengthOf(m_plain) - 1);
  EXPECT_NE(tooSmall.code, 0);
  EXPECT_TRUE(tooSmall.IsUntouched(LengthOf(m_plain) - 1));

  ASSERT_EQ(orb_zorm_service_stop(), 0);
  ASSERT_EQ(Start("two"), 0);
  const Output opened = Decrypt(cipher);
  EXPECT_NE(opened.code, 0);
  EXPECT_TRUE(opened.IsUntouched(kUntouchedLength));
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

TEST_F(ZormContractTest, RefusesAStoreWithoutAPlaceButStartsWithoutAUsableLog) {
  support::WriteWholeFile(m_directory.File("file"), "in the way");
  const std::string below = m_directory.File("file/zorm/store.dat");
  const std::string good = m_directory.File("zorm/store.dat"), other = m_directory.File("zorm/bak");
  for (const auto& [store, backup] : std::vector<std::pair<std::string, std::string>>{
           {"", good}, {good, ""}, {below, good}, {good, below}}) {
    const int code = orb_zorm_service_start_ex("", store.c_str(), backup.c_str());
    EXPECT_TRUE(code != 0 && code != kZormAlreadyStarted && code != kZormStoreDamaged) << code;
  }
  EXPECT_NE(orb_zorm_service_start_ex(nullptr, nullptr, nullptr), 0);
  EXPECT_NE(Encrypt(m_plain).code, 0);
  const char* const logs[] = {"", m_directory.Path().c_str(), "/nowhere/log", nullptr};
  for (const char* log : logs) {
    EXPECT_EQ(orb_zorm_service_start_ex(log, good.c_str(), other.c_str()), 0);
    EXPECT_EQ(orb_zorm_service_stop(), 0);
  }
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
