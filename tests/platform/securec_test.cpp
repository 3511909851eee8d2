#include "zel_platform/securec.h"

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
  for (const rsize_t size : {rsize_t{0}, kTooLarge}) {
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
  const auto expect = [this](int result, int wanted, const char* text) {
    EXPECT_EQ(result, wanted) << text;
    EXPECT_STREQ(m_buffer, text);
  };
  const std::vector<char> withoutNul = {'a', 'b', 'c'};
  expect(strcpy_s(m_buffer, kSize, "1234567"), 0, "1234567");
  expect(strcpy_s(m_buffer, kSize, "12345678"), ERANGE, "");
  expect(strncpy_s(m_buffer, kSize, withoutNul.data(), withoutNul.size()), 0, "abc");
  expect(strncpy_s(m_buffer, 3, "abc", 3), ERANGE, "");
  expect(strncpy_s(m_buffer, 4, "abc", 100), 0, "abc");
  expect(strncpy_s(m_buffer, kSize, "abc", static_cast<rsize_t>(-1)), EINVAL, "");
  expect(sprintf_s(m_buffer, kSize, "%%%X%s", 10U, "45678"), 7, "%A45678");
  expect(sprintf_s(m_buffer, kSize, "%s", "12345678"), -1, "");
}

TEST_F(SecurecTest, OverlapsAreRefusedNeighboursAreNotAndFailedByteCopiesZeroTheDestination) {
  for (const auto& [from, left] :
       std::vector<std::pair<rsize_t, const char*>>{{0, ""}, {4, "ef"}, {3, ""}}) {
    char text[] = "abcdef";  // from 3 on the NUL would hit the source
    EXPECT_EQ(strcpy_s(text, sizeof(text), text + from), *left == '\0' ? EINVAL : 0);
    EXPECT_STREQ(text, left);
  }
  char bytes[] = "0123456789";
  EXPECT_EQ(strncpy_s(bytes + 2, 5, bytes + 1, 2), EINVAL);
  EXPECT_EQ(memcpy_s(bytes + 2, 8, bytes, 3), EINVAL) << "the last byte overlaps";
  EXPECT_EQ(std::string(bytes, 10), "01" + m_zeros);
  EXPECT_EQ(memcpy_s(bytes + 2, 8, bytes, 2), 0) << "side by side";
  EXPECT_STREQ(bytes, "0101");
  EXPECT_EQ(memcpy_s(m_buffer, kSize, "123456789", 9), ERANGE);
  EXPECT_EQ(Whole(), m_zeros);
  EXPECT_EQ(memset_s(bytes, 2, 'z', 5), ERANGE) << "it is filled all the same";
  EXPECT_STREQ(bytes, "zz01");
  EXPECT_EQ(memset_s(bytes, 3, 'y', kTooLarge), EINVAL);
  EXPECT_STREQ(bytes, "yyy1");
}

TEST_F(SecurecTest, AScanReadsNumbersAndOneTokenUntilTheTextDoesNotMatch) {
  const struct {
    const char* text;
    int result;
    std::vector<int> parts;  // -1: not read
    const char* tail;
  } cases[] = {{" +1.\n-20.abcdefghijklmno", 3, {1, -20}, "abcdefghijklmno"},
               {"1.2.abcdefghijklmnop", 2, {1, 2}, ""},  // does not fit
               {"1.2.  x y", 3, {1, 2}, "x"},
               {"1 .2.3", 1, {1, -1}, ""},  // a blank before the dot does not match it
               {"  ", -1, {-1, -1}, ""},
               {"+-1.2.3", 0, {-1, -1}, ""},
               {"2147483648.-99999999999999999999.", 2, {INT_MAX, INT_MIN}, ""}};
  for (const auto& c : cases) {
    std::vector<int> n(2, -1);
    char tail[16] = "";
    EXPECT_EQ(sscanf_s(c.text, "%d.%d.%s", &n[0], &n[1], tail, rsize_t{16}), c.result) << c.text;
    EXPECT_EQ(n, c.parts) << c.text;
    EXPECT_STREQ(tail, c.tail) << c.text;
  }
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
