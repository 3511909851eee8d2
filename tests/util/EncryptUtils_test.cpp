#include "util/EncryptUtils.h"

#include <climits>
#include <memory>
#include <new>

#include <gtest/gtest.h>

#include "support/PlatformDouble.h"

namespace commonutil {
namespace {

constexpr int kErrorLevel = 0;
constexpr int kInfoLevel = 2;
constexpr char kNothingToEncrypt[] =
    "plaintext length == 0 || pszEncrypted == nullptr || puiLen == nullptr";
constexpr char kNothingToDecrypt[] =
    "ciphertext length == 0 || pPlaintext == nullptr || pPlaintextLen == nullptr";

class EncryptUtilsTest : public ::testing::Test {
 protected:
  void SetUp() override { support::ResetPlatformDouble(); }

  EncryptUtils m_encrypt;
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
  EXPECT_EQ(m_encrypt.getMinLen(0), 25);
  EXPECT_EQ(m_encrypt.getMinLen(INT_MAX), INT_MAX);
}

TEST_F(EncryptUtilsTest, StaysInsideBuffersThatAreTooSmallAndFillsFittingOnes) {
  const std::string plain(16, 'p');
  char out[45];
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode(plain, out, 44), 1);
  EXPECT_EQ(support::CountLog("ORB_CRYPT_GetblockSize error. 16, ciphertextLen = 44", kErrorLevel),
            1);
  ASSERT_EQ(m_encrypt.EncryptThenBase64Encode(plain, out, 45), 0);
  EXPECT_EQ(out[44], '\0');
  char back[17] = {};
  back[15] = 'x';
  const int ret = m_encrypt.Base64DecodeThenDecrypt(out, back, 15);
  EXPECT_NE(ret, 0);
  EXPECT_EQ(back[15], 'x');
  EXPECT_EQ(support::CountLog("ORB_CPYPT_Decrypt error. ret = " + std::to_string(ret), kErrorLevel),
            1);
  ASSERT_EQ(m_encrypt.Base64DecodeThenDecrypt(out, back, 16), 0);
  EXPECT_EQ(back, plain);
}

TEST_F(EncryptUtilsTest, TextsThatAreNoneAndMissingBuffersFail) {
  char out[64];
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode("", out, sizeof(out)), 1);
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode("text", nullptr, sizeof(out)), 1);
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode("text", out, -1), 1);
  EXPECT_EQ(m_encrypt.EncryptThenBase64Encode(""), "");
  EXPECT_EQ(support::CountLog(kNothingToEncrypt, kErrorLevel), 4);

  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("", out, sizeof(out)), 1);
  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("QUJD", nullptr, sizeof(out)), 1);
  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("QUJD", out, 0), 1);
  EXPECT_EQ(support::CountLog(kNothingToDecrypt, kErrorLevel), 3);

  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("not base64!"), "");
  EXPECT_EQ(support::CountLogPrefix("KLB_BASE64Decode error. len = ", kErrorLevel), 1);
  EXPECT_EQ(m_encrypt.Base64DecodeThenDecrypt("QUJD"), "");  // no whole block
  EXPECT_EQ(support::CountLogPrefix("ORB_CPYPT_Decrypt error. ret = ", kErrorLevel), 1);
}

TEST_F(EncryptUtilsTest, EachInstanceHasAKeyOfItsOwnAndTellsHowItGotIt) {
  support::ClearLog();
  const EncryptUtils other;
  const auto lines = support::LogLines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].text, "ret1 = 0, ret2 = 0");
  EXPECT_EQ(lines[0].level, kInfoLevel);
  EXPECT_EQ(lines[0].file, "commonutil/util/PublicUtil");
  const std::string plain = "the same text";
  EXPECT_NE(other.Base64DecodeThenDecrypt(m_encrypt.EncryptThenBase64Encode(plain)), plain);
}

TEST_F(EncryptUtilsTest, DestructionLeavesNoKeyBehind) {
  alignas(EncryptUtils) unsigned char storage[sizeof(EncryptUtils)];
  const auto* const utils = new (storage) EncryptUtils;
  const std::string key(reinterpret_cast<const char*>(storage), sizeof(storage));
  utils->~EncryptUtils();
  const std::string zeroes(sizeof(storage), '\0');
  EXPECT_NE(key, zeroes);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(storage), sizeof(storage)), zeroes);
}

}  // namespace
}  // namespace commonutil
