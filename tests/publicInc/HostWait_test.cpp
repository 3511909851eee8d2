// How a host waits for messages and looks at the counters, on the running service.
#include <poll.h>

#include <atomic>
#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "publicInc/CommonUtilEntry.h"
#include "publicInc/ServiceTest.h"

namespace {

using support::Parse;

constexpr unsigned int kLongMs = 60000;

bool Import(const std::string& text) {
  return CommonUtilRecvMsgImport(text.data(), text.size()) == 1;
}

// The next message, or "" when there is none.
std::string Take() {
  char* message = nullptr;
  if (CommonUtilSendMsgExport(&message) == 0) return "";
  const std::string text = message;
  CommonUtilFreeExportMsg(message);
  return text;
}

bool IsReadable(int descriptor) {
  pollfd poll = {descriptor, POLLIN, 0};
  return ::poll(&poll, 1, 0) == 1;
}

class HostWaitTest : public testing::Test {
 protected:
  HostWaitTest() {
    support::ResetPlatformDouble();
    EXPECT_EQ(CommonUtilServiceStartup(), 0);
    EXPECT_TRUE(Import(R"({"cmd":11})"));
    EXPECT_EQ(CommonUtilWaitExportMsg(kLongMs), 1);  // the thread runs
    EXPECT_NE(Take(), "");
  }
  ~HostWaitTest() override {
    CommonUtilServiceSetEager(0);
    CommonUtilServiceShutDown();
  }
};

TEST_F(HostWaitTest, WaitsForAMessageAndTakesNone) {
  EXPECT_EQ(CommonUtilWaitExportMsg(1), 0);
  std::thread late([] { EXPECT_TRUE(Import(R"({"cmd":12,"sno":1})")); });
  EXPECT_EQ(CommonUtilWaitExportMsg(kLongMs), 1);
  EXPECT_EQ(CommonUtilWaitExportMsg(0), 1);
  EXPECT_EQ(Parse(Take())["sno"].asUInt(), 1U);
  EXPECT_EQ(CommonUtilWaitExportMsg(0), 0);
  late.join();

  const int descriptor = CommonUtilExportMsgFd();
  EXPECT_FALSE(IsReadable(descriptor));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(Import(R"({"cmd":12})"));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(CommonUtilWaitExportMsg(kLongMs), 1);
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_NE(Take(), "");
  }
  EXPECT_FALSE(IsReadable(descriptor));
  EXPECT_EQ(CommonUtilExportMsgFd(), descriptor);
}

// Every message is seen by a host that only looks when the descriptor says so.
TEST_F(HostWaitTest, NoMessageIsMissedByAWaitingHost) {
  constexpr unsigned int kMessages = 20000;
  constexpr unsigned int kUnderWay = 1000;  // fewer than the rings hold
  for (const int eager : {0, 1}) {
    CommonUtilServiceSetEager(eager);
    std::atomic<unsigned int> taken{0};
    std::thread importer([&taken] {
      for (unsigned int i = 0; i < kMessages; ++i) {
        while (i - taken.load() >= kUnderWay) std::this_thread::yield();
        ASSERT_TRUE(Import(R"({"cmd":12,"sno":)" + std::to_string(i) + "}"));
      }
    });
    pollfd poll = {CommonUtilExportMsgFd(), POLLIN, 0};
    while (taken < kMessages && ::poll(&poll, 1, static_cast<int>(kLongMs)) == 1) {
      for (std::string text = Take(); !text.empty(); text = Take()) {
        ASSERT_EQ(Parse(text)["sno"].asUInt(), taken.load());
        ++taken;
      }
    }
    EXPECT_EQ(taken.load(), kMessages);
    importer.join();
  }
}

// Hangs where the wait outlives the service.
TEST_F(HostWaitTest, AShutDownEndsTheWait) {
  std::thread waiting([] { EXPECT_EQ(CommonUtilWaitExportMsg(UINT_MAX), 0); });
  CommonUtilServiceShutDown();
  waiting.join();
}

TEST_F(HostWaitTest, CountsWhatWentThrough) {
  const std::unique_ptr<char, void (*)(char*)> text(CommonUtilStatistics(),
                                                    &CommonUtilFreeExportMsg);
  ASSERT_NE(text, nullptr);
  const Json::Value all = Parse(text.get());
  EXPECT_EQ(all["version"].asString(), CommonUtilVersion());
  EXPECT_EQ(all["requests"], Parse(R"({"stored":1,"refused":0,"waiting":0,"highWater":1})"));
  EXPECT_EQ(all["replies"], Parse(R"({"stored":1,"dropped":0,"waiting":0,"highWater":1})"));
  for (const char* group : {"worker", "database", "proxy", "tracking"}) {
    EXPECT_TRUE(all[group].isObject()) << group;
  }
}

TEST(HostWaitWithoutService, AnswersAtOnce) {
  EXPECT_EQ(CommonUtilWaitExportMsg(kLongMs), 0);
  EXPECT_EQ(CommonUtilExportMsgFd(), -1);
  const std::unique_ptr<char, void (*)(char*)> text(CommonUtilStatistics(),
                                                    &CommonUtilFreeExportMsg);
  EXPECT_FALSE(Parse(text.get()).isMember("requests"));
}

}  // namespace
