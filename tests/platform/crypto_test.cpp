#include "zel_platform/crypto.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kGuard = 0xC5;

unsigned int LengthOf(const Bytes& bytes) { return static_cast<unsigned int>(bytes.size()); }
unsigned int LengthOf(const std::string& text) { return static_cast<unsigned int>(text.size()); }
Bytes BytesOf(const std::string& text) { return {text.begin(), text.end()}; }

Bytes FromHex(const std::string& hex) {
  Bytes bytes(hex.size() / 2);
  EXPECT_EQ(orb_cvt_bin(hex.data(), LengthOf(hex), bytes.data(), LengthOf(bytes)), 0);
  return bytes;
}

struct Result {
  int code;
  unsigned int length;
  Bytes buffer;  // the whole buffer, with the guard bytes after its capacity
};

using CipherFunction = decltype(&ORB_CPYPT_Encrypt);

const char kKeyHex[] = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
const char kVectorHex[] = "000102030405060708090a0b0c0d0e0f";
const char kPlainHex[] =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
const char kCipherHex[] =
    "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
    "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b";

Result Apply(CipherFunction function, const Bytes& in, unsigned int capacity) {
  const Bytes key = FromHex(kKeyHex), iv = FromHex(kVectorHex);
  Result result{0, 0, Bytes(capacity + 64, kGuard)};
  result.code = function(0, key.data(), LengthOf(key), iv.data(), LengthOf(iv), in.data(),
                         LengthOf(in), result.buffer.data(), &result.length, capacity);
  return result;
}

bool IsGuardWhole(const Result& result, unsigned int from) {
  return std::all_of(result.buffer.begin() + from, result.buffer.end(),
                     [](unsigned char byte) { return byte == kGuard; });
}

Bytes Encrypted(const Bytes& plain) {
  Result result = Apply(ORB_CPYPT_Encrypt, plain, LengthOf(plain) + 16);
  EXPECT_EQ(result.code, 0);
  result.buffer.resize(result.length);
  return result.buffer;
}

TEST(CryptoCipherTest, EncryptsThePublishedVectorAndAddsAWholeBlockOfPadding) {
  const Bytes cipher = Encrypted(FromHex(kPlainHex));
  ASSERT_EQ(cipher.size(), 80u);
  EXPECT_EQ(Bytes(cipher.begin(), cipher.begin() + 64), FromHex(kCipherHex));
}

TEST(CryptoCipherTest, GivesEveryLengthBackIntoABufferThatJustFits) {
  for (unsigned int length = 0; length <= 49; ++length) {
    SCOPED_TRACE(length);
    const Bytes plain(length, 0x41);
    const Result result = Apply(ORB_CPYPT_Decrypt, Encrypted(plain), length);
    EXPECT_EQ(result.code, 0);
    ASSERT_EQ(result.length, length);
    EXPECT_EQ(Bytes(result.buffer.begin(), result.buffer.begin() + length), plain);
    EXPECT_TRUE(IsGuardWhole(result, length));
  }
}

TEST(CryptoCipherTest, RefusesABufferOneByteShortAndLeavesItAlone) {
  const Bytes plain = FromHex(kPlainHex);
  for (const Result& result :
       {Apply(ORB_CPYPT_Encrypt, plain, 79), Apply(ORB_CPYPT_Decrypt, Encrypted(plain), 63)}) {
    EXPECT_NE(result.code, 0);
    EXPECT_TRUE(IsGuardWhole(result, 0));
  }
}

TEST(CryptoCipherTest, RefusesCipherTextsThatAreNoWholeBlocksOrLackTheirPadding) {
  const Bytes cipher = Encrypted(FromHex(kPlainHex));
  for (const std::size_t length : {0u, 1u, 15u, 64u, 79u}) {  // at 64 the padding is cut off
    SCOPED_TRACE(length);
    const Result result =
        Apply(ORB_CPYPT_Decrypt, Bytes(cipher.data(), cipher.data() + length), 80);
    EXPECT_NE(result.code, 0);
    EXPECT_TRUE(IsGuardWhole(result, 0));
  }
}

TEST(CryptoCipherTest, KnowsOneAlgorithmAndItsSizesOnly) {
  EXPECT_EQ(ORB_CRYPT_GetblockSize(0), 16u);
  EXPECT_EQ(ORB_CRYPT_GetblockSize(1), 0u);
  const unsigned char key[33] = {}, iv[17] = {}, in[16] = {};
  unsigned char out[64];
  unsigned int length = 0;
  for (const CipherFunction function : {ORB_CPYPT_Encrypt, ORB_CPYPT_Decrypt}) {
    EXPECT_NE(function(1, key, 32, iv, 16, in, 16, out, &length, 64), 0);
    EXPECT_NE(function(0, key, 31, iv, 16, in, 16, out, &length, 64), 0);
    EXPECT_NE(function(0, key, 33, iv, 16, in, 16, out, &length, 64), 0);
    EXPECT_NE(function(0, key, 32, iv, 15, in, 16, out, &length, 64), 0);
    EXPECT_NE(function(0, nullptr, 32, iv, 16, in, 16, out, &length, 64), 0);
    EXPECT_NE(function(0, key, 32, iv, 16, nullptr, 16, out, &length, 64), 0);
    EXPECT_NE(function(0, key, 32, iv, 16, in, 16, nullptr, &length, 64), 0);
    EXPECT_NE(function(0, key, 32, iv, 16, in, 16, out, nullptr, 64), 0);
    EXPECT_NE(function(0, key, 32, iv, 16, in, 0xFFFFFFFFu, out, &length, 0xFFFFFFFFu), 0);
  }
}

TEST(CryptoRandomTest, FillsTheWholeBufferDifferentlyEachTime) {
  Bytes first(4096, 0), second(4096, 0);
  ASSERT_EQ(ORB_CPYPT_RealRandom(first.data(), LengthOf(first)), 0);
  ASSERT_EQ(ORB_CPYPT_RealRandom(second.data(), LengthOf(second)), 0);
  EXPECT_NE(first, second);
  // Sixteen zero bytes at the end happen by chance once in 2^128 times.
  EXPECT_NE(Bytes(first.end() - 16, first.end()), Bytes(16, 0));
  EXPECT_NE(ORB_CPYPT_RealRandom(nullptr, 1), 0);
}

std::string DerivedHex(const std::string& password, const std::string& salt, unsigned int rounds,
                       unsigned int length) {
  const Bytes passwordBytes = BytesOf(password), saltBytes = BytesOf(salt);
  Bytes key(length);
  EXPECT_EQ(orb_pkcs5_derivekey_ex(passwordBytes.data(), LengthOf(password), rounds, length,
                                   saltBytes.data(), LengthOf(salt), key.data()),
            0);
  std::string hex(length * 2 + 1, '\0');
  EXPECT_EQ(orb_cvt_hex(key.data(), length, hex.data(), LengthOf(hex)), 0);
  hex.pop_back();
  return hex;
}

TEST(CryptoDeriveKeyTest, GivesThePublishedVectors) {
  EXPECT_EQ(DerivedHex("passwd", "salt", 1, 64),
            "55AC046E56E3089FEC1691C22544B605F94185216DDE0465E68B9D57C20DACBC"
            "49CA9CCCF179B645991664B39D77EF317C71B845B1E30BD509112041D3A19783");
  EXPECT_EQ(DerivedHex("Password", "NaCl", 80000, 64),
            "4DDCD8F60B98BE21830CEE5EF22701F9641A4418D04C0414AEFF08876B34AB56"
            "A1D425A1225833549ADB841B51C9B3176A272BDEBBA1D078478F62B397F33C8D");
}

TEST(CryptoDeriveKeyTest, AcceptsAnEmptyPasswordAndSalt) {
  EXPECT_EQ(DerivedHex("", "", 10000, 32),
            "0D60C695F7E95DB4F9557F5B2410E77B296801A818BD99FFB8D3DD4972B28C50");
}

TEST(CryptoDeriveKeyTest, RefusesLengthsAndCountsThatCannotBe) {
  const unsigned char text[] = "text";
  unsigned char key[32];
  EXPECT_NE(orb_pkcs5_derivekey_ex(text, 0xFFFFFFFFu, 1, 32, text, 4, key), 0);
  EXPECT_NE(orb_pkcs5_derivekey_ex(text, 4, 0, 32, text, 4, key), 0);
  EXPECT_NE(orb_pkcs5_derivekey_ex(text, 4, 1, 0, text, 4, key), 0);
  EXPECT_NE(orb_pkcs5_derivekey_ex(nullptr, 4, 1, 32, text, 4, key), 0);
  EXPECT_NE(orb_pkcs5_derivekey_ex(text, 4, 1, 32, text, 4, nullptr), 0);
}

TEST(CryptoHexTest, WritesUpperCaseDigitsWhenTheNulFitsToo) {
  const unsigned char bytes[] = {0x00, 0x9A, 0xFF};
  char text[8] = "???????";
  EXPECT_NE(orb_cvt_hex(bytes, 3, text, 6), 0);
  EXPECT_STREQ(text, "???????");
  EXPECT_EQ(orb_cvt_hex(bytes, 3, text, 7), 0);
  EXPECT_STREQ(text, "009AFF");
  EXPECT_EQ(text[7], '\0');
  EXPECT_NE(orb_cvt_hex(bytes, 0x80000001u, text, 7), 0);  // twice that is 2 in 32 bits
}

struct HexCase {
  std::string text;
  unsigned int capacity;
  bool succeeds;
  Bytes bytes;
};

TEST(CryptoHexTest, ReadsUpToTheFirstBadCharacterAndZeroesTheRest) {
  const HexCase cases[] = {
      {"09aFfA", 5, true, {0x09, 0xAF, 0xFA, 0, 0}},
      {"", 2, true, {0, 0}},
      {"ABC", 3, true, {0xAB, 0, 0}},      // the odd last digit is dropped
      {"ABxC12", 3, false, {0xAB, 0, 0}},  // bad in the first half of a byte
      {"ABCx12", 3, false, {0xAB, 0, 0}},  // bad in the second half
      {"ABx", 3, false, {0xAB, 0, 0}},     // bad where a digit would be dropped
      {"0g", 1, false, {0}},
      {"0@", 1, false, {0}},
      {std::string("AB\0CD", 5), 2, false, {0xAB, 0}},
      {"ABCDEF", 2, false, {0, 0}},  // does not fit
  };
  for (const HexCase& one : cases) {
    SCOPED_TRACE(one.text);
    Bytes bytes(one.capacity + 4, kGuard);
    const int code = orb_cvt_bin(one.text.data(), LengthOf(one.text), bytes.data(), one.capacity);
    EXPECT_EQ(code == 0, one.succeeds);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + one.capacity), one.bytes);
    EXPECT_EQ(Bytes(bytes.begin() + one.capacity, bytes.end()), Bytes(4, kGuard));
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

// Negative for a text that is refused.
int DecodeBase64(const std::string& text, Bytes* bytes) {
  unsigned char marker = 0;
  unsigned char* data = &marker;
  const int length = KLB_BASE64Decode(text.data(), LengthOf(text), &data);
  EXPECT_EQ(data == nullptr, length < 1);
  const std::unique_ptr<unsigned char, Base64Freer> owner(data);
  if (data && length > 0) bytes->assign(data, data + length);
  return length;
}

TEST(CryptoBase64Test, EncodesAndDecodesThePublishedVectors) {
  EXPECT_EQ(Base64Of({}), "");
  const std::pair<std::string, std::string> vectors[] = {
      {"f", "Zg=="},        {"fo", "Zm8="},        {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [plain, encoded] : vectors) {
    SCOPED_TRACE(plain);
    EXPECT_EQ(Base64Of(BytesOf(plain)), encoded);
    Bytes decoded;
    EXPECT_EQ(DecodeBase64(encoded, &decoded), static_cast<int>(plain.size()));
    EXPECT_EQ(decoded, BytesOf(plain));
  }
}

TEST(CryptoBase64Test, CarriesEveryByteValueAtEveryPositionInOneLine) {
  for (std::size_t shift = 0; shift < 3; ++shift) {
    Bytes bytes(shift, 0xFF);
    for (int value = 0; value < 256; ++value) bytes.push_back(static_cast<unsigned char>(value));
    const std::string text = Base64Of(bytes);
    EXPECT_EQ(text.find_first_of(" \r\n"), std::string::npos);
    Bytes decoded;
    EXPECT_EQ(DecodeBase64(text, &decoded), static_cast<int>(bytes.size()));
    EXPECT_EQ(decoded, bytes);
  }
}

TEST(CryptoBase64Test, RefusesWhateverIsNotTheOneTextOfSomeBytes) {
  const std::string refused[] = {
      "",         "Z",       "Zg",       "Zg=",   "Zm9vYg",       "=",
      "====",     "Z===",    "Zg==Zg==", "Zm=v",  "=Zm9",         " Zm9v",
      "Zm9v ",    "Zm9v\n",  "Zm 9",     "Zm9\n", "Zm9v\r\nYg==", "Zm9-",
      "Zm9_",     "Zm9\xC3", "Zg==    ", "Zh==",  "Zm9=",         std::string("Zm\0v", 4),
      "Zm9v====",
  };
  for (const std::string& text : refused) {
    SCOPED_TRACE(text);
    Bytes ignored;
    EXPECT_LT(DecodeBase64(text, &ignored), 1);
  }
}

TEST(CryptoBase64Test, RefusesMissingArguments) {
  char* text = nullptr;
  unsigned char* data = nullptr;
  EXPECT_NE(KLB_BASE64Encode(nullptr, 1, &text), 0);
  EXPECT_EQ(text, nullptr);
  EXPECT_NE(KLB_BASE64Encode(reinterpret_cast<const unsigned char*>("f"), 1, nullptr), 0);
  EXPECT_LT(KLB_BASE64Decode(nullptr, 4, &data), 1);
  EXPECT_LT(KLB_BASE64Decode("Zm9v", 4, nullptr), 1);
  KLB_BASE64Free(nullptr);
}

}  // namespace
