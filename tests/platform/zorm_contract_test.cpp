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

constexpr unsigned int kRoom = 400;

struct Output {
  int code;
  unsigned int length;
  Bytes buffer = Bytes(kRoom, 0x5C);

  bool IsRefusal(unsigned int capacity) const {
    return code != 0 && length == capacity && buffer == Bytes(kRoom, 0x5C);
  }
  Bytes Content() const { return Bytes(buffer.begin(), buffer.begin() + length); }
};

Output Apply(decltype(&orb_zorm_encrypt) function, const Bytes& in, unsigned int capacity = kRoom) {
  Output out{0, capacity};
  const auto length = static_cast<unsigned int>(in.size());
  out.code = function(in.data(), length, out.buffer.data(), &out.length);
  return out;
}
template <class... Rest>
Output Encrypt(const Bytes& plain, Rest... rest) {
  return Apply(orb_zorm_encrypt, plain, rest...);
}
template <class... Rest>
Output Decrypt(const Bytes& cipher, Rest... rest) {
  return Apply(orb_zorm_decrypt, cipher, rest...);
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
    EXPECT_EQ(Decrypt(cipher.Content(), length).Content(), plain);
    ASSERT_EQ(orb_zorm_service_stop(), 0);
  }
  unsigned int length = 0;
  ASSERT_EQ(orb_zorm_get_ciper_len(32, &length), 0);
  EXPECT_LE(length, 303u) << "the file of the secret holds no more";
  EXPECT_NE(orb_zorm_get_ciper_len(UINT_MAX, &length), 0);
  EXPECT_NE(orb_zorm_get_ciper_len(32, nullptr), 0);
}

TEST_F(ZormContractTest, RefusesEveryChangeOtherStoresSmallBuffersAndCallsWhileItIsStopped) {
  EXPECT_TRUE(Encrypt(m_plain).IsRefusal(kRoom));
  ASSERT_EQ(Start(), 0);
  const Bytes cipher = Encrypt(m_plain).Content();
  EXPECT_EQ(Start(), kZormAlreadyStarted);
  EXPECT_EQ(Start("another"), kZormAlreadyStarted);
  EXPECT_EQ(Decrypt(cipher).Content(), m_plain) << "it runs on";
  std::vector<Bytes> wrongs = {Bytes(60, 0), cipher};  // of zeros: text that is no hex
  wrongs[1].push_back(0);
  for (std::size_t i = 0; i < cipher.size(); ++i) {
    wrongs.push_back(cipher);
    wrongs.back()[i] ^= 0x20;
    wrongs.emplace_back(cipher.data(), cipher.data() + i);
  }
  for (const Bytes& wrong : wrongs) ASSERT_TRUE(Decrypt(wrong).IsRefusal(kRoom));
  const auto tooSmall = static_cast<unsigned int>(cipher.size()) - 1;
  EXPECT_TRUE(Encrypt(m_plain, tooSmall).IsRefusal(tooSmall));
  EXPECT_TRUE(Decrypt(cipher, 31u).IsRefusal(31));
  ASSERT_EQ(orb_zorm_service_stop(), 0);
  EXPECT_TRUE(Decrypt(cipher).IsRefusal(kRoom));
  ASSERT_EQ(Start("two"), 0);
  EXPECT_TRUE(Decrypt(cipher).IsRefusal(kRoom));
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
  for (const char* log : {"", "/nowhere/log", static_cast<const char*>(nullptr)}) {
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
      EXPECT_TRUE(encrypted.code == 0 || encrypted.IsRefusal(kRoom));
      EXPECT_TRUE(opened.code != 0 || opened.Content() == m_plain);
    }
  };
  std::thread first(useIt), second(useIt);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(orb_zorm_service_stop(), 0);
    EXPECT_EQ(Start(), 0);
  }
  first.join();
  second.join();
}

}  // namespace
