#include "zel_platform/securec.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr rsize_t kTooLarge = kRsizeMax + 1;

class SecurecTest : public testing::Test {
 protected:
  void SetUp() override { std::memset(m_buffer, 'x', sizeof(m_buffer)); }

  char m_buffer[8];
};

TEST_F(SecurecTest, ATextThatJustFitsIsCopiedAndOneThatDoesNotLeavesAnEmptyText) {
  EXPECT_EQ(strcpy_s(m_buffer, sizeof(m_buffer), "1234567"), 0);
  EXPECT_STREQ(m_buffer, "1234567");
  EXPECT_EQ(strcpy_s(m_buffer, sizeof(m_buffer), "12345678"), ERANGE);
  EXPECT_STREQ(m_buffer, "");
}

TEST_F(SecurecTest, UnusableDestinationsAreRefusedAndNotWritten) {
  for (const rsize_t size : {rsize_t{0}, kTooLarge, static_cast<rsize_t>(-1)}) {
    EXPECT_EQ(strcpy_s(m_buffer, size, "a"), EINVAL);
    EXPECT_EQ(strncpy_s(m_buffer, size, "a", 1), EINVAL);
    EXPECT_EQ(memcpy_s(m_buffer, size, "a", 1), EINVAL);
    EXPECT_EQ(memset_s(m_buffer, size, 0, 1), EINVAL);
    EXPECT_EQ(sprintf_s(m_buffer, size, "%d", 1), -1);
  }
  EXPECT_EQ(std::string(m_buffer, sizeof(m_buffer)), "xxxxxxxx");
  EXPECT_EQ(strcpy_s(nullptr, 1, "a"), EINVAL);
  EXPECT_EQ(memcpy_s(nullptr, 1, "a", 1), EINVAL);
  EXPECT_EQ(memset_s(nullptr, 1, 0, 1), EINVAL);
}

TEST_F(SecurecTest, ANullSourceLeavesAnEmptyDestination) {
  EXPECT_EQ(strcpy_s(m_buffer, sizeof(m_buffer), nullptr), EINVAL);
  EXPECT_STREQ(m_buffer, "");
  m_buffer[0] = 'x';
  EXPECT_EQ(strncpy_s(m_buffer, sizeof(m_buffer), nullptr, 3), EINVAL);
  EXPECT_STREQ(m_buffer, "");
  EXPECT_EQ(memcpy_s(m_buffer, sizeof(m_buffer), nullptr, 3), EINVAL);
  EXPECT_EQ(std::string(m_buffer, sizeof(m_buffer)), std::string(8, '\0'));
}

TEST_F(SecurecTest, ACountBelowTheLengthCutsTheTextAndReadsNothingBehindIt) {
  const std::vector<char> withoutNul = {'a', 'b', 'c'};
  EXPECT_EQ(strncpy_s(m_buffer, sizeof(m_buffer), withoutNul.data(), withoutNul.size()), 0);
  EXPECT_STREQ(m_buffer, "abc");
  EXPECT_EQ(strncpy_s(m_buffer, 3, "abc", 3), ERANGE);
  EXPECT_STREQ(m_buffer, "");
  EXPECT_EQ(strncpy_s(m_buffer, 4, "abc", 100), 0);
  EXPECT_STREQ(m_buffer, "abc");
  EXPECT_EQ(strncpy_s(m_buffer, sizeof(m_buffer), "abc", static_cast<rsize_t>(-1)), EINVAL);
  EXPECT_STREQ(m_buffer, "");
}

TEST_F(SecurecTest, OverlappingTextsAreRefusedAndNeighboursAreNot) {
  char text[] = "abcdef";
  EXPECT_EQ(strcpy_s(text, sizeof(text), text), EINVAL);
  EXPECT_STREQ(text, "");

  std::strcpy(text, "abcdef");
  EXPECT_EQ(strcpy_s(text, sizeof(text), text + 4), 0) << "\"ef\" and its NUL end before it";
  EXPECT_STREQ(text, "ef");

  std::strcpy(text, "abcdef");
  EXPECT_EQ(strcpy_s(text, sizeof(text), text + 3), EINVAL) << "the NUL would hit the source";
  std::strcpy(text, "abcdef");
  EXPECT_EQ(strncpy_s(text + 2, 5, text + 1, 2), EINVAL);
}

TEST_F(SecurecTest, FailedByteCopiesZeroTheWholeDestination) {
  const std::string zeros(sizeof(m_buffer), '\0');
  EXPECT_EQ(memcpy_s(m_buffer, sizeof(m_buffer), "123456789", 9), ERANGE);
  EXPECT_EQ(std::string(m_buffer, sizeof(m_buffer)), zeros);

  char bytes[] = "0123456789";
  EXPECT_EQ(memcpy_s(bytes + 2, 8, bytes, 3), EINVAL) << "the last byte overlaps";
  EXPECT_EQ(std::string(bytes, 10), "01" + std::string(8, '\0'));

  std::memcpy(bytes, "0123456789", 10);
  EXPECT_EQ(memcpy_s(bytes + 2, 8, bytes, 2), 0) << "side by side";
  EXPECT_EQ(std::string(bytes, 10), "0101456789");
  EXPECT_EQ(memcpy_s(bytes, 10, bytes, 0), 0);
}

TEST_F(SecurecTest, ACountAboveTheBufferFillsItAndFails) {
  char guarded[] = "0123456789";
  EXPECT_EQ(memset_s(guarded, 4, 'z', 5), ERANGE);
  EXPECT_STREQ(guarded, "zzzz456789");
  EXPECT_EQ(memset_s(guarded, 5, 'y', kTooLarge), EINVAL);
  EXPECT_STREQ(guarded, "yyyyy56789");
}

constexpr std::size_t kSecretBytes = 65536;
constexpr unsigned char kSecretByte = 0xA7;

// Returns where the bytes are, as a number that may outlive them.
std::uintptr_t FillWithSecret(unsigned char* bytes) {
  std::memset(bytes, kSecretByte, kSecretBytes);
  return reinterpret_cast<std::uintptr_t>(bytes);
}

// Leaves a frame behind that held a secret and was wiped as its last act.
__attribute__((noinline)) std::uintptr_t WipeAsTheLastAct() {
  unsigned char secret[kSecretBytes];
  std::uintptr_t (*volatile fill)(unsigned char*) = FillWithSecret;
  const std::uintptr_t address = fill(secret);
  (void)memset_s(secret, sizeof(secret), 0, sizeof(secret));
  return address;
}

// The frame is read through the kernel: to the program it is gone, which is why a compiler
// that sees through the call would drop a plain memset. Later calls reuse the upper end of
// the frame, so the lower half is looked at.
TEST_F(SecurecTest, AWipeSurvivesTheOptimiser) {
  const auto frame = static_cast<off_t>(WipeAsTheLastAct());
  const int memory = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(memory, 0);
  std::vector<unsigned char> seen(kSecretBytes / 2);
  const ssize_t length = ::pread(memory, seen.data(), seen.size(), frame);
  ::close(memory);
  ASSERT_EQ(length, static_cast<ssize_t>(seen.size()));
  EXPECT_EQ(std::count(seen.begin(), seen.end(), kSecretByte), 0);
}

TEST_F(SecurecTest, PrintingReturnsTheLengthOrLeavesAnEmptyText) {
  EXPECT_EQ(sprintf_s(m_buffer, sizeof(m_buffer), "%%%X%X", 10U, 11U), 3);
  EXPECT_STREQ(m_buffer, "%AB");
  EXPECT_EQ(sprintf_s(m_buffer, sizeof(m_buffer), "%s", "1234567"), 7);
  EXPECT_EQ(sprintf_s(m_buffer, sizeof(m_buffer), "%s", "12345678"), -1);
  EXPECT_STREQ(m_buffer, "");
}

struct Parsed {
  int result;
  int parts[4];
  std::string tail;
};

class ScanAddressTest : public testing::Test {
 protected:
  static Parsed Scan(const char* text) {
    int a = -1, b = -1, c = -1, d = -1;
    char tail[16] = "";
    const int result = sscanf_s(text, "%d.%d.%d.%d%s", &a, &b, &c, &d, tail, rsize_t{sizeof(tail)});
    return {result, {a, b, c, d}, tail};
  }

  static void ExpectParts(const Parsed& parsed, int a, int b, int c, int d) {
    EXPECT_EQ(parsed.parts[0], a);
    EXPECT_EQ(parsed.parts[1], b);
    EXPECT_EQ(parsed.parts[2], c);
    EXPECT_EQ(parsed.parts[3], d);
  }
};

TEST_F(ScanAddressTest, BlanksAndSignsBeforeANumberBelongToIt) {
  for (const char* text : {"1.2.3.4", " 1.2.3.4", "1. 2.3.4", "+1.2.3.4", "1.2.3.0004", "1.2.3.4 ",
                           "\t1.\n2.\v3.\f\r4"}) {
    const Parsed parsed = Scan(text);
    EXPECT_EQ(parsed.result, 4) << text;
    ExpectParts(parsed, 1, 2, 3, 4);
    EXPECT_EQ(parsed.tail, "") << text;
  }
  ExpectParts(Scan("-0.1.2.3"), 0, 1, 2, 3);
  ExpectParts(Scan("-1.-20.3.4"), -1, -20, 3, 4);
}

TEST_F(ScanAddressTest, TheScanEndsWhereTheTextDoesNotMatch) {
  EXPECT_EQ(Scan("").result, -1);
  EXPECT_EQ(Scan("  ").result, -1);
  EXPECT_EQ(Scan("abc").result, 0);
  EXPECT_EQ(Scan("-").result, 0);
  EXPECT_EQ(Scan("+-1.2.3.4").result, 0);
  EXPECT_EQ(Scan("1.2.3").result, 3);
  EXPECT_EQ(Scan("1.2.3.").result, 3);
  EXPECT_EQ(Scan("1 .2.3.4").result, 1) << "a blank before the dot does not match it";
  ExpectParts(Scan("1..3.4"), 1, -1, -1, -1);
}

TEST_F(ScanAddressTest, TheTailIsOneTokenAndATooLongOneLeavesAnEmptyBuffer) {
  EXPECT_EQ(Scan("1.2.3.4x").tail, "x");
  EXPECT_EQ(Scan("1.2.3.4  x y").tail, "x");
  EXPECT_EQ(Scan("1.2.3.4.5").tail, ".5");
  EXPECT_EQ(Scan("1.2.3.4123456789012345x").parts[3], INT_MAX);
  const Parsed fits = Scan("1.2.3.4 abcdefghijklmno");
  EXPECT_EQ(fits.result, 5);
  EXPECT_EQ(fits.tail, "abcdefghijklmno");
  const Parsed tooLong = Scan("1.2.3.4 abcdefghijklmnop");
  EXPECT_EQ(tooLong.result, 4);
  EXPECT_EQ(tooLong.tail, "");
  ExpectParts(tooLong, 1, 2, 3, 4);
}

TEST_F(ScanAddressTest, NumbersBeyondAnIntBecomeTheNearestInt) {
  ExpectParts(Scan("2147483647.-2147483648.2147483648.-2147483649"), INT_MAX, INT_MIN, INT_MAX,
              INT_MIN);
  ExpectParts(Scan("4294967297.99999999999999999999999999.-99999999999999999999999999.4"), INT_MAX,
              INT_MAX, INT_MIN, 4);
}

TEST_F(SecurecTest, AnUnusableTokenBufferOrAnUnknownConversionEndsTheScan) {
  int number = 0;
  EXPECT_EQ(sscanf_s("7 x", "%d%s", &number, m_buffer, rsize_t{0}), 1);
  EXPECT_EQ(sscanf_s("7 x", "%d%s", &number, m_buffer, static_cast<rsize_t>(-1)), 1);
  EXPECT_EQ(m_buffer[0], 'x') << "a buffer without a size is not written";
  EXPECT_EQ(sscanf_s("7 8", "%d %f", &number, m_buffer), 1);
  EXPECT_EQ(sscanf_s("7 8", "%d %", &number), 1);
  EXPECT_EQ(sscanf_s(nullptr, "%d", &number), -1);
}

TEST_F(SecurecTest, TokensAreCutInPlaceUntilNoneIsLeft) {
  char text[] = ";;a;b;";
  char* rest = nullptr;
  EXPECT_STREQ(strtok_s(text, ";", &rest), "a");
  EXPECT_STREQ(strtok_s(nullptr, ";", &rest), "b");
  EXPECT_EQ(strtok_s(nullptr, ";", &rest), nullptr);
  char* none = nullptr;
  EXPECT_EQ(strtok_s(nullptr, ";", &none), nullptr);
}

}  // namespace
