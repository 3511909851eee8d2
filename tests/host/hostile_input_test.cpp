// What a host may get wrong, posted through the entry points of the built library: nothing
// crashes it, nothing makes it grow, and a good request is answered afterwards.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "publicInc/CommonUtilEntry.h"
#include "support/TempDir.h"

namespace {

#if defined(__has_feature)
#define ZEL_HAS_FEATURE(name) __has_feature(name)
#else
#define ZEL_HAS_FEATURE(name) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    ZEL_HAS_FEATURE(address_sanitizer) || ZEL_HAS_FEATURE(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr int kRingSlots = 2048;
constexpr int kWarmUpRequests = 10000;
constexpr int kSoakRequests = kSanitized ? 20000 : 1000000;
constexpr long kGrowthKb = 4096;
constexpr int kExchanges = kSanitized ? 2000 : 20000;
constexpr std::chrono::seconds kDeadline(60);

constexpr char kLargeSerial[] = "2147483648";  // unsigned, but no int

// A value of every JSON type, and numbers at and beyond the edges.
std::vector<std::string> Values() {
  std::istringstream texts(
      "null true -1 1.5 1e300 -1e300 2147483648 -2147483649 4294967296 18446744073709551616 "
      "-9223372036854775809 \"text\" \"\" \"\\u0000\" [] [1] {} {\"cmd\":11}");
  return {std::istream_iterator<std::string>(texts), {}};
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string Request(int command, const std::string& members) {
  return "{\"cmd\":" + std::to_string(command) + (members.empty() ? "" : ",") + members + "}";
}

int Import(const std::string& text) { return CommonUtilRecvMsgImport(text.data(), text.size()); }

// Every message waiting for the host, in order.
std::vector<std::string> TakeAll() {
  std::vector<std::string> messages;
  char* message = nullptr;
  while (CommonUtilSendMsgExport(&message) == 1) {
    messages.emplace_back(message);
    CommonUtilFreeExportMsg(message);
  }
  return messages;
}

// The replies to one request, handled on this thread.
std::vector<std::string> Process(std::string request) {
  (void)CommonUtilProcessRecvMsg(request.data());
  return TakeAll();
}

// The `count` next messages, or fewer when they do not come in time.
std::vector<std::string> WaitFor(std::size_t count) {
  std::vector<std::string> messages;
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (messages.size() < count && std::chrono::steady_clock::now() < deadline) {
    const std::vector<std::string> taken = TakeAll();
    if (taken.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    messages.insert(messages.end(), taken.begin(), taken.end());
  }
  return messages;
}

// The text behind `key` in a flat reply, up to the next comma or line end; empty without it.
std::string Member(const std::string& reply, const std::string& key) {
  const std::size_t at = reply.find(Quoted(key));
  if (at == std::string::npos) return {};
  const std::size_t begin = reply.find_first_not_of(" :", at + key.size() + 2);
  return reply.substr(begin, reply.find_first_of(",\n", begin) - begin);
}

// "rsp result" of the only reply, or what else came.
std::string Outcome(const std::vector<std::string>& replies) {
  if (replies.size() != 1) return std::to_string(replies.size()) + " replies";
  return Member(replies[0], "rsp") + " " + Member(replies[0], "result");
}

std::string InitRequest(const std::string& initParam) {
  return Request(1, "\"param\":{\"initParam\":" + initParam + "}");
}

long ResidentKb() {
  long size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

// The library initialises once per process. That one time has good folders, because wrong ones
// make it write wherever the process may.
class HostileInputTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_dir = std::make_unique<support::TempDir>();
    ASSERT_EQ(Outcome(Process(InitRequest("{\"log_path\":\"" + s_dir->Path() +
                                          "/log/\",\"logLevel\":0,\"logSize\":64,\"fileCount\":1,"
                                          "\"dbPath\":\"" +
                                          s_dir->Path() + "/\"}"))),
              "1 0");
  }
  static void TearDownTestSuite() { s_dir.reset(); }

  void TearDown() override {
    (void)TakeAll();
    EXPECT_EQ(Outcome(Process(Request(11, "\"sno\":1"))), "11 0");
  }

 private:
  static std::unique_ptr<support::TempDir> s_dir;
};

std::unique_ptr<support::TempDir> HostileInputTest::s_dir;

// The service thread, from a first answer to the shut-down: a shut-down that comes before the
// thread has begun would be lost.
class RunningService {
 public:
  RunningService() {
    EXPECT_EQ(CommonUtilServiceStartup(), 0);
    EXPECT_EQ(Import(Request(11, "")), 1);
  }
  ~RunningService() { CommonUtilServiceShutDown(); }
  RunningService(const RunningService&) = delete;
  RunningService& operator=(const RunningService&) = delete;
};

TEST_F(HostileInputTest, IgnoresTextsThatAreNoRequest) {
  const std::string nested(100000, '[');
  std::vector<std::string> texts = {"", " ", "x", "{", "\"", "[{\"cmd\":11}]", "{\"sno\":1}"};
  for (const char* rest : {"", ",\"description\":\"x", ",\"description\":\"\\u12"}) {
    texts.push_back(std::string("{\"cmd\":11") + rest);
  }
  texts.push_back("\xff\xfe{\"cmd\":11}");
  texts.push_back(nested);
  texts.push_back("{\"cmd\":11,\"param\":" + nested);
  texts.push_back(texts.back() + std::string(nested.size(), ']') + "}");
  for (const std::string& value : Values()) {
    if (value[0] != '{') texts.push_back(value);
  }
  for (const std::string& text : texts) {
    EXPECT_EQ(Outcome(Process(text)), "0 replies") << text.substr(0, 40);
  }
  (void)CommonUtilProcessRecvMsg(nullptr);
  EXPECT_EQ(TakeAll().size(), 0u);
}

TEST_F(HostileInputTest, IgnoresCommandsThatAreNoNumberOfTheTable) {
  for (const std::string& value : Values()) {
    EXPECT_EQ(Outcome(Process("{\"cmd\":" + value + ",\"sno\":1}")), "0 replies") << value;
  }
  for (const char* number : {"0", "10", "17", "19", "33", "34", "65535", "131073", "131083"}) {
    EXPECT_EQ(Outcome(Process(std::string("{\"cmd\":") + number + ",\"sno\":1}")), "0 replies")
        << number;
  }
}

TEST_F(HostileInputTest, EchoesOnlySerialNumbersAndDescriptionsOfTheRightType) {
  for (const std::string& value : Values()) {
    const auto replies = Process(Request(12, "\"sno\":" + value + ",\"description\":" + value));
    ASSERT_EQ(Outcome(replies), "12 0") << value;
    EXPECT_EQ(Member(replies[0], "sno"), value == kLargeSerial ? value : "") << value;
    EXPECT_EQ(Member(replies[0], "description"), value[0] == '"' ? value : "") << value;
  }
  EXPECT_EQ(Member(Process(Request(13, "\"sno\":4294967295")).at(0), "sno"), "4294967295");
  EXPECT_EQ(Member(Process(Request(13, "\"sno\":0")).at(0), "sno"), "0");
}

TEST_F(HostileInputTest, ReadsInitialisationRecordsWithWrongMembers) {
  const std::string again = "1 2";
  const std::string failed = "1 1";
  EXPECT_EQ(Outcome(Process(Request(1, ""))), failed);
  for (const std::string& value : Values()) {
    EXPECT_EQ(Outcome(Process(Request(1, "\"param\":" + value))), failed) << value;
    if (value[0] == '{') continue;  // an object is a record, if an empty one
    EXPECT_EQ(Outcome(Process(InitRequest(value))), failed) << value;
  }
  for (const char* key : {"log_path", "logLevel", "logSize", "fileCount", "dbPath"}) {
    for (const std::string& value : Values()) {
      EXPECT_EQ(Outcome(Process(InitRequest("{" + Quoted(key) + ":" + value + "}"))), again)
          << key << " " << value;
    }
    const std::string tooLong = Quoted(std::string(100000, 'x'));
    EXPECT_EQ(Outcome(Process(InitRequest("{" + Quoted(key) + ":" + tooLong + "}"))), again) << key;
  }
}

TEST_F(HostileInputTest, ReadsAnImportedMessageUpToItsFirstNul) {
  const RunningService service;
  ASSERT_EQ(WaitFor(1).size(), 1u);
  const std::string nul(1, '\0');
  EXPECT_EQ(Import(nul + Request(11, "\"sno\":1")), 1);
  EXPECT_EQ(Import(Request(11, "\"sno\":2") + nul + Request(11, "\"sno\":3")), 1);
  EXPECT_EQ(Import(Request(11, "\"sno\":4")), 1);
  const auto replies = WaitFor(2);
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(Member(replies[0], "sno"), "2");
  EXPECT_EQ(Member(replies[1], "sno"), "4");
}

TEST_F(HostileInputTest, RefusesWhatAFullRingCannotHoldAndServesTheRest) {
  for (int i = 0; i < kRingSlots; ++i) {
    ASSERT_EQ(Import(Request(11, "\"sno\":" + std::to_string(i))), 1) << i;
  }
  EXPECT_EQ(Import(Request(11, "\"sno\":9999")), 0);

  ASSERT_EQ(CommonUtilServiceStartup(), 0);
  const auto replies = WaitFor(kRingSlots);
  ASSERT_EQ(replies.size(), static_cast<std::size_t>(kRingSlots));
  for (int i = 0; i < kRingSlots; ++i) EXPECT_EQ(Member(replies[i], "sno"), std::to_string(i));

  EXPECT_EQ(Import(Request(11, "\"sno\":10000")), 1);
  const auto last = WaitFor(1);
  CommonUtilServiceShutDown();
  ASSERT_EQ(last.size(), 1u);
  EXPECT_EQ(Member(last[0], "sno"), "10000");
}

TEST_F(HostileInputTest, DropsRepliesThatNobodyFetches) {
  std::string request = Request(11, "\"sno\":1");
  for (int i = 0; i < kRingSlots + 500; ++i) (void)CommonUtilProcessRecvMsg(request.data());
  EXPECT_EQ(TakeAll().size(), static_cast<std::size_t>(kRingSlots));
}

TEST_F(HostileInputTest, AMillionRequestsTakeNoMemory) {
  std::string good = Request(11, "\"sno\":1,\"description\":\"" + std::string(100, 'x') + "\"");
  std::string wrong = "{\"cmd\":1,\"param\":{\"initParam\":";
  long residentKb = 0;
  for (int i = 0; i < kSoakRequests; ++i) {
    if (i == kWarmUpRequests) residentKb = ResidentKb();
    std::string& request = i % 100 == 0 ? wrong : good;
    (void)CommonUtilProcessRecvMsg(request.data());
    char* reply = nullptr;
    ASSERT_EQ(CommonUtilSendMsgExport(&reply), &request == &good ? 1 : 0);
    CommonUtilFreeExportMsg(reply);
  }
  // A sanitizer keeps freed memory back, and reports what is lost by itself.
  if (!kSanitized) {
    EXPECT_LT(ResidentKb() - residentKb, kGrowthKb);
  }
}

// Posts requests 0, 1, 2 ... and never runs ahead so far that replies would be dropped.
template <class Post>
void PostAll(Post post, int command, const std::atomic<int>& answered) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  int sent = 0;
  while (sent < kExchanges && std::chrono::steady_clock::now() < deadline) {
    const bool early = sent - answered.load() < kRingSlots / 4;
    if (early && post(Request(command, "\"sno\":" + std::to_string(sent)))) {
      ++sent;
    } else {
      std::this_thread::yield();
    }
  }
}

TEST_F(HostileInputTest, KeepsTheOrderOfEachThreadThatAsks) {
  const RunningService service;
  ASSERT_EQ(WaitFor(1).size(), 1u);
  std::atomic<int> imported{0};
  std::atomic<int> direct{0};
  std::thread importer([&] {
    PostAll([](const std::string& request) { return Import(request) == 1; }, 11, imported);
  });
  std::thread caller([&] {
    PostAll([](std::string request) { return CommonUtilProcessRecvMsg(request.data()) == 0; }, 12,
            direct);
  });

  bool inOrder = true;
  while (imported < kExchanges || direct < kExchanges) {
    const auto replies = WaitFor(1);
    if (replies.empty()) break;
    for (const std::string& reply : replies) {
      std::atomic<int>& answered = Member(reply, "rsp") == "11" ? imported : direct;
      inOrder = inOrder && Member(reply, "sno") == std::to_string(answered);
      ++answered;
    }
  }
  importer.join();
  caller.join();
  EXPECT_EQ(imported, kExchanges);
  EXPECT_EQ(direct, kExchanges);
  EXPECT_TRUE(inOrder);
}

}  // namespace
