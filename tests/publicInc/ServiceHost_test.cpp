// The plain entry points, the service thread behind them, and how a host waits for messages.
#include "publicInc/ServiceHost.h"

#include <poll.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <thread>

#include "prax/prax_ref.h"
#include "publicInc/CommonUtilEntry.h"
#include "publicInc/ServiceTest.h"
#include "support/Child.h"

namespace {

using support::CountLog;
using support::Parse;

constexpr unsigned int kLongMs = 60000;
constexpr char kExitLine[] = "CommonUtilServiceShutDown exit";

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

Json::Value Statistics() {
  char* const text = CommonUtilStatistics();
  const Json::Value figures = Parse(text);
  CommonUtilFreeExportMsg(text);
  return figures;
}

bool IsReadable(int descriptor, unsigned int timeoutMs = 0) {
  pollfd poll = {descriptor, POLLIN, 0};
  return ::poll(&poll, 1, static_cast<int>(timeoutMs)) == 1;
}

// Running for certain: an answer has come.
void StartAndAwaitAnswer() {
  ASSERT_EQ(CommonUtilServiceStartup(), 0);
  ASSERT_TRUE(Import(R"({"cmd":11,"sno":1})"));
  ASSERT_EQ(CommonUtilWaitExportMsg(kLongMs), 1);
  ASSERT_NE(Take(), "");
}

class ServiceHostTest : public testing::Test {
 protected:
  ServiceHostTest() { support::ResetPlatformDouble(); }
  ~ServiceHostTest() override {
    CommonUtilServiceSetEager(0);
    CommonUtilServiceShutDown();
  }
};

TEST_F(ServiceHostTest, AnswersUntilShutDownAndAgainAfterTheNextStart) {
  CommonUtilServiceShutDown();
  ServiceShutDown();  // nothing to end
  PRAX_Ref_FailNext(PRAX_REF_THREAD_CREATE, 1, EAGAIN);
  EXPECT_EQ(CommonUtilServiceStartup(), EAGAIN);
  EXPECT_NE(commonutil::ServiceHost::GetInst().Pin(), nullptr);  // for the next try
  EXPECT_TRUE(support::LogTexts().empty());
  for (int round = 1; round <= 3; ++round) {
    StartAndAwaitAnswer();
    EXPECT_EQ(ServiceStartup(), 0);  // no second thread: one shut-down ends it
    EXPECT_EQ(CommonUtilRecvMsgImport(nullptr, 5), 0);
    EXPECT_EQ(CommonUtilProcessRecvMsg(nullptr), 1);
    EXPECT_EQ(CommonUtilSendMsgExport(nullptr), 0);
    CommonUtilFreeExportMsg(nullptr);
    std::thread other([] { CommonUtilServiceShutDown(); });  // two at once join once
    CommonUtilServiceShutDown();
    other.join();
    EXPECT_EQ(CountLog(kExitLine, 2), round);
    EXPECT_EQ(commonutil::ServiceHost::GetInst().Pin(), nullptr);
    EXPECT_FALSE(Import("{}"));
    EXPECT_EQ(Take(), "");
  }
  EXPECT_EQ(support::CountLogPrefix("g_stServiceThread join error"), 0);
}

TEST_F(ServiceHostTest, AnExportWhileTheServiceEndsTouchesNoFreedObject) {
  for (int round = 0; round < 20; ++round) {
    StartAndAwaitAnswer();
    std::atomic<bool> done{false};
    std::thread host([&done] {
      while (!done.load()) {
        (void)Import(R"({"cmd":11})");
        (void)Take();
      }
    });
    CommonUtilServiceShutDown();
    done.store(true);
    host.join();
  }
}

TEST_F(ServiceHostTest, WaitsForAMessageAndTakesNone) {
  StartAndAwaitAnswer();
  CommonUtilServiceShutDown();  // also ends what other tests have left
  EXPECT_EQ(CommonUtilWaitExportMsg(kLongMs), 0);
  EXPECT_EQ(CommonUtilExportMsgFd(), -1);
  EXPECT_FALSE(Statistics().isMember("requests"));
  StartAndAwaitAnswer();
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
  const Json::Value all = Statistics();
  EXPECT_EQ(all["version"].asString(), CommonUtilVersion());
  EXPECT_GE(all["requests"]["highWater"].asInt(), 1);
  for (const auto& [ring, lost] : {std::pair("requests", "refused"), {"replies", "dropped"}}) {
    EXPECT_EQ(all[ring]["stored"].asInt(), 5) << ring;
    EXPECT_EQ(all[ring][lost].asInt() + all[ring]["waiting"].asInt(), 0) << ring;
  }
  for (const char* group : {"worker", "database", "proxy", "tracking"}) {
    EXPECT_TRUE(all[group].isObject()) << group;
  }
}

// Every message is seen by a host that only looks when the descriptor says so.
TEST_F(ServiceHostTest, NoMessageIsMissedByAWaitingHost) {
  constexpr unsigned int kMessages = 20000;
  constexpr unsigned int kUnderWay = 1000;  // fewer than the rings hold
  StartAndAwaitAnswer();
  for (const int eager : {0, 1}) {
    CommonUtilServiceSetEager(eager);
    std::atomic<unsigned int> taken{0};
    std::thread importer([&taken] {
      for (unsigned int i = 0; i < kMessages; ++i) {
        while (i - taken.load() >= kUnderWay) std::this_thread::yield();
        ASSERT_TRUE(Import(R"({"cmd":12,"sno":)" + std::to_string(i) + "}"));
      }
    });
    const int descriptor = CommonUtilExportMsgFd();
    while (taken < kMessages && IsReadable(descriptor, kLongMs)) {
      for (std::string text = Take(); !text.empty(); text = Take()) {
        ASSERT_EQ(Parse(text)["sno"].asUInt(), taken++);
      }
    }
    EXPECT_EQ(taken.load(), kMessages);
    importer.join();
  }
}

TEST(ServiceHostWaitTest, WaitsAlsoWhereThereCanBeNoDescriptor) {
  support::ExpectTrueInFreshProcess([] {
    EXPECT_EQ(CommonUtilServiceStartup(), 0);
    EXPECT_TRUE(Import(R"({"cmd":12})"));
    while (Statistics()["replies"]["waiting"] != 1) std::this_thread::yield();
    rlimit files = {};
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
    const rlimit none = {0, files.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(CommonUtilExportMsgFd(), -1);
    EXPECT_EQ(CommonUtilWaitExportMsg(0), 1);
    EXPECT_NE(Take(), "");
    EXPECT_EQ(CommonUtilWaitExportMsg(1), 0);
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &files), 0);  // a sanitizer opens files as objects go
    CommonUtilServiceShutDown();
    return true;
  });
}

// Hangs where the wait outlives the service.
TEST_F(ServiceHostTest, AShutDownEndsTheWait) {
  StartAndAwaitAnswer();
  std::thread waiting([] { EXPECT_EQ(CommonUtilWaitExportMsg(UINT_MAX), 0); });
  CommonUtilServiceShutDown();
  waiting.join();
}

}  // namespace
