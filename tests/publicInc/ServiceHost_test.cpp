// The plain entry points and the service thread behind them.
#include "publicInc/ServiceHost.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "prax/prax_ref.h"
#include "publicInc/CommonUtilEntry.h"
#include "support/PlatformDouble.h"

namespace {

constexpr int kErrorLevel = 0;
constexpr std::chrono::seconds kDeadline(60);

bool Import(const std::string& text) {
  return CommonUtilRecvMsgImport(text.data(), text.size()) == 1;
}

// The next message for the host, or "" when none comes in time.
std::string WaitForMessage() {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  char* message = nullptr;
  while (CommonUtilSendMsgExport(&message) == 0) {
    if (std::chrono::steady_clock::now() > deadline) return "";
    std::this_thread::yield();
  }
  const std::string text = message;
  CommonUtilFreeExportMsg(message);
  return text;
}

// Running for certain: an answer has come.
void StartAndAwaitAnswer() {
  ASSERT_EQ(CommonUtilServiceStartup(), 0);
  ASSERT_TRUE(Import(R"({"cmd":11,"sno":1})"));
  ASSERT_NE(WaitForMessage(), "");
}

class ServiceHostTest : public testing::Test {
 protected:
  ServiceHostTest() { support::ResetPlatformDouble(); }
  ~ServiceHostTest() override { CommonUtilServiceShutDown(); }
};

TEST_F(ServiceHostTest, AnswersUntilShutDownAndAgainAfterTheNextStart) {
  CommonUtilServiceShutDown();
  ServiceShutDown();  // nothing to end
  EXPECT_EQ(support::CountLog("CommonUtilServiceShutDown exit"), 0);
  PRAX_Ref_FailNext(PRAX_REF_THREAD_CREATE, 1, EAGAIN);
  EXPECT_EQ(CommonUtilServiceStartup(), EAGAIN);
  EXPECT_NE(commonutil::ServiceHost::GetInst().Pin(), nullptr);  // for the next try
  EXPECT_TRUE(support::LogTexts().empty());
  for (int round = 0; round < 3; ++round) {
    StartAndAwaitAnswer();
    EXPECT_EQ(ServiceStartup(), 0);  // no second thread: one shut-down ends it
    CommonUtilServiceShutDown();
    EXPECT_EQ(support::CountLog("CommonUtilServiceShutDown exit", 2), round + 1);
    EXPECT_EQ(commonutil::ServiceHost::GetInst().Pin(), nullptr);
    EXPECT_FALSE(Import("{}"));
    char* message = nullptr;
    EXPECT_EQ(CommonUtilSendMsgExport(&message), 0);
  }
}

TEST_F(ServiceHostTest, RequestsOfAThreadThatNeverStartedWaitForOneThatDoes) {
  char request[] = R"({"cmd":12,"sno":5})";
  EXPECT_EQ(CommonUtilProcessRecvMsg(request), 0);  // makes the object, starts no thread
  EXPECT_NE(WaitForMessage(), "");
  EXPECT_STREQ(request, R"({"cmd":12,"sno":5})");
  ASSERT_TRUE(Import(R"({"cmd":13,"sno":6})"));
  ASSERT_EQ(CommonUtilServiceStartup(), 0);
  EXPECT_NE(WaitForMessage().find("13"), std::string::npos);
}

TEST_F(ServiceHostTest, TwoShutDownsAtOnceJoinOnce) {
  StartAndAwaitAnswer();
  std::thread other([] { CommonUtilServiceShutDown(); });
  CommonUtilServiceShutDown();
  other.join();
  EXPECT_EQ(support::CountLog("CommonUtilServiceShutDown exit"), 1);
  EXPECT_EQ(support::CountLogPrefix("g_stServiceThread join error"), 0);
}

TEST_F(ServiceHostTest, AnExportWhileTheServiceEndsTouchesNoFreedObject) {
  for (int round = 0; round < 20; ++round) {
    StartAndAwaitAnswer();
    std::atomic<bool> done{false};
    std::thread host([&done] {
      char* message = nullptr;
      while (!done.load()) {
        (void)Import(R"({"cmd":11})");
        if (CommonUtilSendMsgExport(&message) == 1) CommonUtilFreeExportMsg(message);
      }
    });
    CommonUtilServiceShutDown();
    done.store(true);
    host.join();
  }
}

TEST_F(ServiceHostTest, RefusesNullAndLengthsThatCannotBe) {
  StartAndAwaitAnswer();
  EXPECT_EQ(CommonUtilRecvMsgImport(nullptr, 5), 0);
  EXPECT_EQ(CommonUtilRecvMsgImport("x", 0), 0);
  EXPECT_EQ(CommonUtilRecvMsgImport("x", std::numeric_limits<unsigned long>::max()), 0);
  EXPECT_EQ(CommonUtilProcessRecvMsg(nullptr), 1);
  EXPECT_EQ(CommonUtilSendMsgExport(nullptr), 0);
  CommonUtilFreeExportMsg(nullptr);
  EXPECT_EQ(support::CountLogPrefix("", kErrorLevel), 0);
}

}  // namespace
