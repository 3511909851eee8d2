// What a host may get wrong, posted through the entry points of the built library: nothing
// crashes it, and a good request is answered afterwards.
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "publicInc/CommonUtilEntry.h"
#include "support/TempDir.h"

namespace {

constexpr int kRingSlots = 2048;
constexpr char kLargeSerial[] = "2147483648";  // unsigned, but no int

// A value of every JSON type, and numbers at and beyond the edges.
std::vector<std::string> Values() {
  std::istringstream texts(
      "null true -1 1.5 1e300 -1e300 2147483648 -2147483649 4294967296 18446744073709551616 "
      "-9223372036854775809 \"text\" \"\" \"\\u0000\" [] [1] {} {\"cmd\":11}");
  return {std::istream_iterator<std::string>(texts), {}};
}

std::string Request(int command, const std::string& members) {
  return "{\"cmd\":" + std::to_string(command) + "," + members + "}";
}

std::string InitRequest(const std::string& initParam) {
  return Request(1, "\"param\":{\"initParam\":" + initParam + "}");
}

// Every message waiting for the host, in order.
std::vector<std::string> TakeAll() {
  std::vector<std::string> messages;
  for (char* message = nullptr; CommonUtilSendMsgExport(&message) == 1;) {
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

// The text behind `key` in a flat reply, up to the next comma or line end; empty without it.
std::string Member(const std::string& reply, const std::string& key) {
  const std::size_t at = reply.find('"' + key + '"');
  if (at == std::string::npos) return {};
  const std::size_t begin = reply.find_first_not_of(" :", at + key.size() + 2);
  return reply.substr(begin, reply.find_first_of(",\n", begin) - begin);
}

// "rsp result" of the only reply, or what else came.
std::string Outcome(const std::vector<std::string>& replies) {
  if (replies.size() != 1) return std::to_string(replies.size()) + " replies";
  return Member(replies[0], "rsp") + " " + Member(replies[0], "result");
}

// The library initialises once per process. That one time has good folders, because wrong ones
// make it write wherever the process may.
class HostileInputTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_dir = std::make_unique<support::TempDir>();
    const std::string init = "{\"log_path\":\"" + s_dir->File("log/") + "\",\"dbPath\":\"" +
                             s_dir->File("") + "\",\"logSize\":64,\"fileCount\":1}";
    ASSERT_EQ(Outcome(Process(InitRequest(init))), "1 0");
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

TEST_F(HostileInputTest, IgnoresWhatIsNoRequestOrNoCommandOfTheTable) {
  const std::string nested(100000, '[');
  std::vector<std::string> texts = {"", " ", "x", "{", "[{\"cmd\":11}]", "{\"sno\":1}", nested};
  for (const char* rest : {"", ",\"description\":\"x", ",\"description\":\"\\u12"}) {
    texts.push_back(std::string("{\"cmd\":11") + rest);
  }
  texts.push_back("\xff\xfe{\"cmd\":11}");
  texts.push_back("{\"cmd\":11,\"param\":" + nested);
  texts.push_back(texts.back() + std::string(nested.size(), ']') + "}");
  std::vector<std::string> commands = Values();
  commands.insert(commands.end(), {"0", "10", "17", "19", "33", "34", "65535", "131073", "131083"});
  for (const std::string& command : commands) {
    if (command[0] != '{') texts.push_back(command);
    texts.push_back("{\"cmd\":" + command + ",\"sno\":1}");
  }
  for (const std::string& text : texts) {
    EXPECT_EQ(Outcome(Process(text)), "0 replies") << text.substr(0, 40);
  }
}

TEST_F(HostileInputTest, EchoesOnlySerialNumbersAndDescriptionsOfTheRightType) {
  for (const std::string& value : Values()) {
    const auto replies = Process(Request(12, "\"sno\":" + value + ",\"description\":" + value));
    ASSERT_EQ(Outcome(replies), "12 0") << value;
    EXPECT_EQ(Member(replies[0], "sno"), value == kLargeSerial ? value : "") << value;
    EXPECT_EQ(Member(replies[0], "description"), value[0] == '"' ? value : "") << value;
  }
  // What the request may hold but JSON does not.
  EXPECT_EQ(Process(Request(13, "\"description\":/* a */\"x\" // b\n")).at(0).find('/'),
            std::string::npos);
  for (const char* serial : {"0", "4294967295"}) {
    const std::string request = Request(13, std::string("\"sno\":") + serial);
    EXPECT_EQ(Member(Process(request).at(0), "sno"), serial);
  }
}

TEST_F(HostileInputTest, ReadsInitialisationRecordsWithWrongMembers) {
  std::vector<std::string> values = Values();
  for (const std::string& value : values) {
    EXPECT_EQ(Outcome(Process(Request(1, "\"param\":" + value))), "1 1") << value;
    if (value[0] == '{') continue;  // an object is a record, if an empty one
    EXPECT_EQ(Outcome(Process(InitRequest(value))), "1 1") << value;
  }
  values.push_back('"' + std::string(100000, 'x') + '"');
  for (const char* key : {"log_path", "logLevel", "logSize", "fileCount", "dbPath"}) {
    for (const std::string& value : values) {
      const std::string record = std::string("{\"") + key + "\":" + value + "}";
      EXPECT_EQ(Outcome(Process(InitRequest(record))), "1 2") << record.substr(0, 40);
    }
  }
}

TEST_F(HostileInputTest, DropsRepliesThatNobodyFetches) {
  std::string request = Request(11, "\"sno\":1");
  for (int i = 0; i < kRingSlots + 500; ++i) (void)CommonUtilProcessRecvMsg(request.data());
  EXPECT_EQ(TakeAll().size(), static_cast<std::size_t>(kRingSlots));
}

}  // namespace
