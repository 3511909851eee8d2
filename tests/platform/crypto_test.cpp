#include "zel_platform/crypto.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kGuard = 0xC5;

unsigned int LengthOf(const Bytes& bytes) { return static_cast<unsigned int>(bytes.size()); }
Bytes BytesOf(const std::string& text) { return {text.begin(), text.end()}; }

Bytes FromHex(const std::string& hex) {
  Bytes bytes(hex.size() / 2);
  EXPECT_EQ(orb_cvt_bin(hex.data(), LengthOf(BytesOf(hex)), bytes.data(), LengthOf(bytes)), 0);
  return bytes;
}

// What was written; "touched" when a failure or a success wrote to anything else.
Bytes Apply(decltype(&ORB_CPYPT_Encrypt) function, const Bytes& in, unsigned int capacity) {
  const Bytes key = FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
  const Bytes iv = FromHex("000102030405060708090a0b0c0d0e0f");
  Bytes buffer(capacity + 64, kGuard);
  unsigned int length = 0;
  const int code = function(0, key.data(), LengthOf(key), iv.data(), LengthOf(iv), in.data(),
                            LengthOf(in), buffer.data(), &length, capacity);
  if (code != 0) length = 0;
  const Bytes rest(buffer.begin() + length, buffer.end());
  if (rest != Bytes(capacity + 64 - length, kGuard)) return BytesOf("touched");
  buffer.resize(length);
  return code == 0 ? buffer : BytesOf("refused");
}

Bytes Encrypted(const Bytes& plain) {
  return Apply(ORB_CPYPT_Encrypt, plain, LengthOf(plain) + 16);
}

TEST(CryptoCipherTest, EncryptsThePublishedVectorAndGivesEveryLengthBackIntoABufferThatJustFits) {
  const Bytes plain = FromHex(
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
  const Bytes cipher = Encrypted(plain);
  ASSERT_EQ(cipher.size(), 80u);
  EXPECT_EQ(Bytes(cipher.begin(), cipher.begin() + 64),
            FromHex("f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                    "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"));
  for (unsigned int length = 0; length <= 49; ++length) {
    const Bytes text(length, 0x41);
    EXPECT_EQ(Apply(ORB_CPYPT_Decrypt, Encrypted(text), length), text);
  }
  EXPECT_EQ(ORB_CRYPT_GetblockSize(0), 16u);
  EXPECT_EQ(ORB_CRYPT_GetblockSize(1), 0u);
  const Bytes refused = BytesOf("refused");
  EXPECT_EQ(Apply(ORB_CPYPT_Encrypt, plain, 79), refused);
  EXPECT_EQ(Apply(ORB_CPYPT_Decrypt, cipher, 63), refused);
  for (const int length : {0, 1, 15, 64, 79}) {  // at 64 the padding is cut off
    const Bytes start(cipher.begin(), cipher.begin() + length);
    EXPECT_EQ(Apply(ORB_CPYPT_Decrypt, start, 80), refused);
  }
}

TEST(CryptoDeriveKeyTest, GivesThePublishedVectorsAndRefusesLengthsThatCannotBe) {
  const auto derive = [](const Bytes& password, unsigned int rounds, const Bytes& salt,
                         Bytes* key) {
    return orb_pkcs5_derivekey_ex(password.data(), LengthOf(password), rounds, LengthOf(*key),
                                  salt.data(), LengthOf(salt), key->data());
  };
  const struct {
    const char *password, *salt;
    unsigned int rounds;
    const char* key;
  } cases[] = {{"Password", "NaCl", 80000,
                "4DDCD8F60B98BE21830CEE5EF22701F9641A4418D04C0414AEFF08876B34AB56"
                "A1D425A1225833549ADB841B51C9B3176A272BDEBBA1D078478F62B397F33C8D"},
               {"", "", 10000, "0D60C695F7E95DB4F9557F5B2410E77B296801A818BD99FFB8D3DD4972B28C50"}};
  for (const auto& each : cases) {
    const Bytes expected = FromHex(each.key);
    Bytes key(expected.size());
    EXPECT_EQ(derive(BytesOf(each.password), each.rounds, BytesOf(each.salt), &key), 0);
    EXPECT_EQ(key, expected);
  }
  Bytes key(32), none;
  EXPECT_NE(derive(key, 0, key, &key), 0);
  EXPECT_NE(derive(key, 1, key, &none), 0);
  EXPECT_NE(orb_pkcs5_derivekey_ex(key.data(), 0xFFFFFFFFu, 1, 32, key.data(), 4, key.data()), 0);
  EXPECT_NE(orb_pkcs5_derivekey_ex(nullptr, 4, 1, 32, key.data(), 4, key.data()), 0);
}

TEST(CryptoHexTest, WritesUpperCaseAndReadsUpToTheFirstBadCharacterAndZeroesTheRest) {
  const unsigned char given[] = {0x00, 0x9A, 0xFF};
  char text[8] = "???????";
  EXPECT_NE(orb_cvt_hex(given, 3, text, 6), 0) << "no room for the NUL";
  EXPECT_STREQ(text, "???????");
  EXPECT_EQ(orb_cvt_hex(given, 3, text, 7), 0);
  EXPECT_STREQ(text, "009AFF");
  EXPECT_NE(orb_cvt_hex(given, 0x80000001u, text, 7), 0);  // twice that is 2 in 32 bits

  const struct {
    std::string text;
    unsigned int capacity;
    bool succeeds;
    Bytes bytes;
  } cases[] = {{"09aFfA", 5, true, {0x09, 0xAF, 0xFA, 0, 0}},
               {"", 2, true, {0, 0}},
               {"ABC", 3, true, {0xAB, 0, 0}},      // the odd last digit is dropped
               {"ABxC12", 3, false, {0xAB, 0, 0}},  // bad in the first half of a byte
               {"ABCx12", 3, false, {0xAB, 0, 0}},  // bad in the second half
               {"ABx", 3, false, {0xAB, 0, 0}},     // bad where a digit would be dropped
               {"0g", 1, false, {0}},
               {"0@", 1, false, {0}},
               {std::string("AB\0CD", 5), 2, false, {0xAB, 0}},
               {"ABCDEF", 2, false, {0, 0}}};  // does not fit
  for (const auto& c : cases) {
    Bytes bytes(c.capacity + 4, kGuard), expected = c.bytes;
    expected.resize(c.capacity + 4, kGuard);
    const auto length = static_cast<unsigned int>(c.text.size());
    EXPECT_EQ(orb_cvt_bin(c.text.data(), length, bytes.data(), c.capacity) == 0, c.succeeds);
    EXPECT_EQ(bytes, expected) << c.text;
  }
}

struct Base64Freer {
  void operator()(void* memory) const { KLB_BASE64Free(memory); }
};

std::string Base64Of(const Bytes& bytes) {
  char* text = nullptr;
  EXPECT_EQ(KLB_BASE64Encode(bytes.data(), LengthOf(bytes), &text), 0);
  const std::unique_ptr<char, Base64Freer> owner(text);
  return text ? text : "(null)";
}

// Empty for a text that is refused.
Bytes FromBase64(const std::string& text) {
  unsigned char marker = 0;
  unsigned char* data = &marker;
  const auto size = static_cast<unsigned int>(text.size());
  const int length = KLB_BASE64Decode(text.data(), size, &data);
  EXPECT_EQ(data == nullptr, length < 1);
  const std::unique_ptr<unsigned char, Base64Freer> owner(data);
  return data && length > 0 ? Bytes(data, data + length) : Bytes();
}

TEST(CryptoBase64Test, CarriesEveryByteInOneLine) {
  EXPECT_EQ(Base64Of({}), "");
  EXPECT_EQ(Base64Of(BytesOf("f")) + Base64Of(BytesOf("fo")) + Base64Of(BytesOf("foo")),
            "Zg==Zm8=Zm9v");
  Bytes bytes;
  for (int value = 0; value < 1024; ++value) bytes.push_back(static_cast<unsigned char>(value * 3));
  EXPECT_EQ(Base64Of(bytes).find_first_of(" \r\n"), std::string::npos);
  EXPECT_EQ(FromBase64(Base64Of(bytes)), bytes);
}

TEST(CryptoBase64Test, RefusesWhateverIsNotTheOneTextOfSomeBytes) {
  EXPECT_EQ(FromBase64(std::string("Zm\0v", 4)), Bytes());
  for (const char* text : {"", "Z", "Zg=", "Zm9vYg", "====", "Zg==Zg==", "Zm=v", "=Zm9", " Zm9v",
                           "Zm9v\n", "Zm 9", "Zm9v\r\nYg==", "Zm9-", "Zm9\xC3", "Zh==", "Zm9="}) {
    EXPECT_EQ(FromBase64(text), Bytes()) << text;
  }
}

}  // namespace
