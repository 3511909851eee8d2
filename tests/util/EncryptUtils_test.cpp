#include "util/EncryptUtils.h"

#include <climits>
#include <new>

#include <gtest/gtest.h>

#include "support/PlatformDouble.h"

namespace commonutil {
namespace {

class EncryptUtilsTest : public ::testing::Test {
 protected:
  EncryptUtilsTest() { support::ClearLog(); }

  const EncryptUtils m_encrypt;
};

TEST_F(EncryptUtilsTest, GivesEveryTextBackInTheLengthThatItTells) {
  std::string plain;
  for (int length = 1; length <= 100; ++length) {
    plain.push_back(static_cast<char>(length % 2 == 0 ? 0xE4 : 'a' + length % 26));
    const std::string cipher = m_encrypt.EncryptThenBase64Encode(plain);
    EXPECT_EQ(static_cast<int>(cipher.size()) + 1, m_encrypt.getMinLen(length));
    EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt(cipher), plain);
  }
  EXPECT_EQ(m_encrypt.getMinLen(-1), 25);
  EXPECT_EQ(m_encrypt.getMinLen(INT_MAX), INT_MAX);
}

TEST_F(EncryptUtilsTest, StaysInsideBuffersThatAreTooSmallAndFillsFittingOnes) {
  const std::string plain(16, 'p');
  char out[45];
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode(plain, out, 44), 1);
  EXPECT_EQ(support::CountLog("ORB_CRYPT_GetblockSize error. 16, ciphertextLen = 44", 0), 1);
  ASSERT_EQ(m_encrypt.EncryptThenBase64Encode(plain, out, 45), 0);
  EXPECT_EQ(out[44], '\0');
  char back[17] = {};
  back[15] = 'x';
  EXPECT_NE(m_encrypt.Base64DecodeThenDecrypt(out, back, 15), 0);
  EXPECT_EQ(back[15], 'x');
  ASSERT_EQ(m_encrypt.Base64DecodeThenDecrypt(out, back, 16), 0);
  EXPECT_EQ(back, plain);
}

TEST_F(EncryptUtilsTest, TextsThatAreNoneAndMissingBuffersFail) {
  char out[64];
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode("", out, sizeof(out)), 1);
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode("text", nullptr, sizeof(out)), 1);
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode("text", out, -1), 1);
  EXPECT_EQ(support::CountLogPrefix("plaintext length == 0 || ", 0), 3);

  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("", out, sizeof(out)), 1);
  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("QUJD", nullptr, sizeof(out)), 1);
  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("QUJD", out, 0), 1);
  EXPECT_EQ(support::CountLogPrefix("ciphertext length == 0 || ", 0), 3);

  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("not base64!"), "");
  EXPECT_EQ(support::CountLogPrefix("KLB_BASE64Decode error. len = ", 0), 1);
  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("QUJD"), "");  // no whole block
  EXPECT_EQ(support::CountLogPrefix("ORB_CPYPT_Decrypt error. ret = ", 0), 1);
}

TEST_F(EncryptUtilsTest, EachInstanceHasAKeyOfItsOwnThatEndsWithIt) {
  alignas(EncryptUtils) unsigned char storage[sizeof(EncryptUtils)];
  const std::string_view memory(reinterpret_cast<const char*>(storage), sizeof(storage));
  const auto* const other = new (storage) EncryptUtils;
  EXPECT_EQ(support::CountLog("ret1 = 0, ret2 = 0", 2), 1);
  const std::string plain = "the same text";
  EXPECT_NE(other->Base64DecodeThenDecrypt(m_encrypt.EncryptThenBase64Encode(plain)), plain);
  EXPECT_EQ(memory.find(std::string(8, '\0')), memory.npos);  // all of it is random
  other->~EncryptUtils();
  EXPECT_EQ(memory, std::string(sizeof(storage), '\0'));
}

}  // namespace
}  // namespace commonutil
