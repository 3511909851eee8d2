#include <gtest/gtest.h>

#include "publicInc/CommonUtilPrivateManager.h"
#include "support/PlatformDouble.h"

namespace commonutil {
namespace {

constexpr char kPublicMrc[] = "8.8.8.8";
constexpr char kPrivateMrc[] = "192.168.1.1";

std::string Repeated(const std::string& piece, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += piece;
  return text;
}

class SbcSelectionTest : public testing::Test {
 protected:
  SbcSelectionTest() { support::ResetPlatformDouble(); }

  // What the buffer holds afterwards. Its memory ends where `list` does.
  std::string Select(const std::string& list, const char* mrc, int len) {
    std::vector<char> buffer(list.c_str(), list.c_str() + list.size() + 1);
    m_manager.CheckSbcAddressByMrcIp(buffer.data(), mrc, len);
    return buffer.data();
  }
  static int CopyFailures() { return support::CountLogPrefix("secure func return err: ", 0); }

  CommonUtilPrivateManager& m_manager = CommonUtilPrivateManager::getInst();
};

TEST_F(SbcSelectionTest, KeepsTheAddressesOnTheSideOfTheMrc) {
  const std::string tail = Repeated("1.2.3.4;", 61) + "122.133.144.15";  // 502 characters
  const struct {
    std::string list;
    const char* mrc;
    std::string expected;
  } cases[] = {
      {"10.0.0.1:5061,1.2.3.4:5061", kPrivateMrc, "10.0.0.1:5061"},
      {"10.0.0.1:5061,1.2.3.4:5061", kPublicMrc, "1.2.3.4:5061"},
      {",1.2.3.4,,5.6.7.8,", kPublicMrc, "1.2.3.4;5.6.7.8"},
      {"10.0.0.1,10.0.0.2", kPublicMrc, "10.0.0.1,10.0.0.2"},  // none: left alone
      {"1.2.3.4;10.0.0.1,5.6.7.8", kPublicMrc, "5.6.7.8"},     // "1.2.3.4;10.0.0.1" is no address
      {" 1.2.3.4,5.6.7.8", kPublicMrc, "5.6.7.8"},             // nor is one with a blank
      {"host.example:1,1.2.3.4", nullptr, "host.example:1"},
      {"10.0.0.1;" + tail, kPublicMrc, tail},                  // 511
      {"10.0.0.10;" + tail, kPublicMrc, "10.0.0.10;" + tail},  // 512
  };
  for (const auto& c : cases) {
    support::ClearLog();
    EXPECT_EQ(Select(c.list, c.mrc, static_cast<int>(c.list.size()) + 1), c.expected) << c.list;
    EXPECT_EQ(support::CountLog("old sbcAddress: " + c.list, 0), 1);
    EXPECT_EQ(support::CountLog("new sbcAddress: " + c.expected + "; mrcIp: " + (c.mrc ?: ""), 2),
              1);
    EXPECT_EQ(CopyFailures(), c.list.size() == 512 ? 1 : 0) << c.list;
  }
}

TEST_F(SbcSelectionTest, AResultThatDoesNotFitLeavesAnEmptyTextAndABadSizeNothing) {
  const std::string list = "1.2.3.4,10.0.0.1";
  EXPECT_EQ(Select(list, kPublicMrc, 8), "1.2.3.4");
  EXPECT_EQ(support::CountLog("add sbcAddress: 1.2.3.4", 2), 1);
  EXPECT_EQ(CopyFailures(), 0);
  EXPECT_EQ(Select(list, kPublicMrc, 7), "");
  EXPECT_EQ(Select(list, kPublicMrc, 0), list);
  EXPECT_EQ(Select(list, kPublicMrc, -1), list);
  EXPECT_EQ(CopyFailures(), 3);
  m_manager.CheckSbcAddressByMrcIp(nullptr, kPublicMrc, 16);
  EXPECT_EQ(support::CountLog("old sbcAddress: ", 0), 1);
}

TEST_F(SbcSelectionTest, SplitsListsIntoTheEntriesThatAreNotEmpty) {
  using Entries = std::vector<std::string>;
  const std::pair<std::string, Entries> cases[] = {
      {"", {"first"}},
      {"a;b,c;", {"first", "a;b", "c;"}},
      {";;a; b", {"first", "a", " b"}},
      {std::string(512, 'x'), {"first", std::string(512, 'x')}},
      {std::string(10000, ','), {"first"}},
      {std::string("a,b\0,c", 6), {"first", "a", "b"}}};
  for (const auto& [text, expected] : cases) {
    Entries entries = {"first"};
    m_manager.ParseIPList(text, entries);
    EXPECT_EQ(entries, expected) << text;
  }
  Entries entries;
  m_manager.SplitStrByDelim("a, b", entries, ", ");
  m_manager.SplitStrByDelim("a,b", entries, "");
  EXPECT_EQ(entries, (Entries{"a", "b", "a,b"}));
}

}  // namespace
}  // namespace commonutil
