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
  void SetUp() override { std::memset(m_buffer, 'x', kSize); }
  std::string Whole() const { return std::string(m_buffer, kSize); }

  static constexpr rsize_t kSize = 8;
  const std::string m_zeros = std::string(kSize, '\0');
  char m_buffer[kSize];
};

TEST_F(SecurecTest, UnusableDestinationsAreNotWrittenAndANullSourceLeavesAnEmptyOne) {
  for (const rsize_t size : {rsize_t{0}, kTooLarge, static_cast<rsize_t>(-1)}) {
    EXPECT_EQ(strcpy_s(m_buffer, size, "a"), EINVAL);
    EXPECT_EQ(strncpy_s(m_buffer, size, "a", 1), EINVAL);
    EXPECT_EQ(memcpy_s(m_buffer, size, "a", 1), EINVAL);
    EXPECT_EQ(memset_s(m_buffer, size, 0, 1), EINVAL);
    EXPECT_EQ(sprintf_s(m_buffer, size, "%d", 1), -1);
  }
  EXPECT_EQ(Whole(), "xxxxxxxx");
  EXPECT_EQ(strcpy_s(nullptr, 1, "a"), EINVAL);
  EXPECT_EQ(memcpy_s(nullptr, 1, "a", 1), EINVAL);
  EXPECT_EQ(memset_s(nullptr, 1, 0, 1), EINVAL);

  EXPECT_EQ(strcpy_s(m_buffer, kSize, nullptr), EINVAL);
  EXPECT_STREQ(m_buffer, "");
  m_buffer[0] = 'x';
  EXPECT_EQ(strncpy_s(m_buffer, kSize, nullptr, 3), EINVAL);
  EXPECT_STREQ(m_buffer, "");
  EXPECT_EQ(memcpy_s(m_buffer, kSize, nullptr, 3), EINVAL);
  EXPECT_EQ(Whole(), m_zeros);
}

TEST_F(SecurecTest, ATextThatJustFitsIsCopiedAndOneThatDoesNotLeavesAnEmptyText) {
  EXPECT_EQ(strcpy_s(m_buffer, kSize, "1234567"), 0);
  EXPECT_STREQ(m_buffer, "1234567");
  EXPECT_EQ(strcpy_s(m_buffer, kSize, "12345678"), ERANGE);
  EXPECT_STREQ(m_buffer, "");

  const std::vector<char> withoutNul = {'a', 'b', 'c'};
  EXPECT_EQ(strncpy_s(m_buffer, kSize, withoutNul.data(), withoutNul.size()), 0);
  EXPECT_STREQ(m_buffer, "abc");
  EXPECT_EQ(strncpy_s(m_buffer, 3, "abc", 3), ERANGE);
  EXPECT_STREQ(m_buffer, "");
  EXPECT_EQ(strncpy_s(m_buffer, 4, "abc", 100), 0);
  EXPECT_STREQ(m_buffer, "abc");
  EXPECT_EQ(strncpy_s(m_buffer, kSize, "abc", static_cast<rsize_t>(-1)), EINVAL);
  EXPECT_STREQ(m_buffer, "");

  EXPECT_EQ(sprintf_s(m_buffer, kSize, "%%%X%X", 10U, 11U), 3);
  EXPECT_STREQ(m_buffer, "%AB");
  EXPECT_EQ(sprintf_s(m_buffer, kSize, "%s", "1234567"), 7);
  EXPECT_EQ(sprintf_s(m_buffer, kSize, "%s", "12345678"), -1);
  EXPECT_STREQ(m_buffer, "");
}

TEST_F(SecurecTest, OverlapsAreRefusedNeighboursAreNotAndFailedByteCopiesZeroTheDestination) {
  struct Case {
    rsize_t from;
    int code;
    const char* text;
  };
  for (const Case& c : {Case{0, EINVAL, ""}, Case{4, 0, "ef"}, Case{3, EINVAL, ""}}) {
    char text[] = "abcdef";  // from 3 on the NUL would hit the source
    EXPECT_EQ(strcpy_s(text, sizeof(text), text + c.from), c.code);
    EXPECT_STREQ(text, c.text);
  }
  char text[] = "abcdef";
  EXPECT_EQ(strncpy_s(text + 2, 5, text + 1, 2), EINVAL);

  EXPECT_EQ(memcpy_s(m_buffer, kSize, "123456789", 9), ERANGE);
  EXPECT_EQ(Whole(), m_zeros);
  char bytes[] = "0123456789";
  EXPECT_EQ(memcpy_s(bytes + 2, 8, bytes, 3), EINVAL) << "the last byte overlaps";
  EXPECT_EQ(std::string(bytes, 10), "01" + m_zeros);
  std::memcpy(bytes, "0123456789", 10);
  EXPECT_EQ(memcpy_s(bytes + 2, 8, bytes, 2), 0) << "side by side";
  EXPECT_STREQ(bytes, "0101456789");
  EXPECT_EQ(memset_s(bytes, 4, 'z', 5), ERANGE) << "it is filled all the same";
  EXPECT_STREQ(bytes, "zzzz456789");
  EXPECT_EQ(memset_s(bytes, 5, 'y', kTooLarge), EINVAL);
  EXPECT_STREQ(bytes, "yyyyy56789");
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
// that sees through the call would drop a plain memset. Later calls reuse its upper end.
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

TEST_F(SecurecTest, AScanReadsNumbersAndOneTokenUntilTheTextDoesNotMatch) {
  struct Case {
    const char* text;
    int result;
    std::vector<int> parts;  // -1: not read
    const char* tail;
  };
  const std::vector<int> none(4, -1), all = {1, 2, 3, 4};
  for (const Case& c : {
           Case{"1.2.3.4", 4, all, ""},
           Case{" 1. 2.3.4 ", 4, all, ""},
           Case{"+1.2.3.0004", 4, all, ""},
           Case{"\t1.\n2.\v3.\f\r4", 4, all, ""},
           Case{"-1.-20.3.-0", 4, {-1, -20, 3, 0}, ""},
           Case{"", -1, none, ""},
           Case{"  ", -1, none, ""},
           Case{"abc", 0, none, ""},
           Case{"-", 0, none, ""},
           Case{"+-1.2.3.4", 0, none, ""},
           Case{"1.2.3.", 3, {1, 2, 3, -1}, ""},
           Case{"1 .2.3.4", 1, {1, -1, -1, -1}, ""},  // a blank before the dot does not match it
           Case{"1..3.4", 1, {1, -1, -1, -1}, ""},
           Case{"1.2.3.4x", 5, all, "x"},
           Case{"1.2.3.4  x y", 5, all, "x"},
           Case{"1.2.3.4.5", 5, all, ".5"},
           Case{"1.2.3.4 abcdefghijklmno", 5, all, "abcdefghijklmno"},
           Case{"1.2.3.4 abcdefghijklmnop", 4, all, ""},  // does not fit
           Case{"2147483647.-2147483648.2147483648.-2147483649",
                4,
                {INT_MAX, INT_MIN, INT_MAX, INT_MIN},
                ""},
           Case{"4294967297.99999999999999999999999999.-99999999999999999999999999.4",
                4,
                {INT_MAX, INT_MAX, INT_MIN, 4},
                ""},
       }) {
    std::vector<int> n(4, -1);
    char tail[16] = "";
    EXPECT_EQ(sscanf_s(c.text, "%d.%d.%d.%d%s", &n[0], &n[1], &n[2], &n[3], tail, rsize_t{16}),
              c.result)
        << c.text;
    EXPECT_EQ(n, c.parts) << c.text;
    EXPECT_STREQ(tail, c.tail) << c.text;
  }
}

TEST_F(SecurecTest, AnUnusableTokenBufferOrAnUnknownConversionEndsTheScan) {
  int number = 0;
  EXPECT_EQ(sscanf_s("7 x", "%d%s", &number, m_buffer, rsize_t{0}), 1);
  EXPECT_EQ(sscanf_s("7 x", "%d%s", &number, m_buffer, static_cast<rsize_t>(-1)), 1);
  EXPECT_EQ(m_buffer[0], 'x') << "a buffer without a size is not written";
  EXPECT_EQ(sscanf_s("7 8", "%d %f", &number, m_buffer), 1);
  EXPECT_EQ(sscanf_s("7 8", "%d %", &number), 1);
  EXPECT_EQ(sscanf_s(nullptr, "%d", &number), -1);

  char text[] = ";;a;b;";
  char* rest = nullptr;
  EXPECT_STREQ(strtok_s(text, ";", &rest), "a");
  EXPECT_STREQ(strtok_s(nullptr, ";", &rest), "b");
  EXPECT_EQ(strtok_s(nullptr, ";", &rest), nullptr);
  rest = nullptr;
  EXPECT_EQ(strtok_s(nullptr, ";", &rest), nullptr);
}

}  // namespace
