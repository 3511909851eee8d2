// Audit requests against a server that answers as each case wants.
#include "zel_platform/login.h"

#include <sys/socket.h>

#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/reader.h>

#include "LoopbackServer.h"
#include "config/config_ref.h"
#include "config/settings.h"
#include "logger/logger_ref.h"
#include "login/login_ref.h"
#include "support/Arrivals.h"
#include "support/Peer.h"
#include "support/TempDir.h"

namespace {

using zelctl::LoopbackRequest;
using zelctl::LoopbackServer;

// The library's answers, each in a line. Its address is the requests' `user`.
auto& g_answers = *new support::Arrivals<std::string>;

void Add(void* user, const std::string& text) {
  EXPECT_EQ(user, &g_answers);
  g_answers.Add(text);
}
void OnUpload(unsigned int, int code, void* user, const void* result) {
  const auto& r = *static_cast<const tagLOGIN_AUDIT_UPLOAD_RESULT*>(result);
  EXPECT_EQ(code, r.code);
  Add(user, std::to_string(r.code) + " " + r.text1 + " " + r.text2);
}
void OnReport(unsigned int id, void* user, const void* result) {
  const auto& r = *static_cast<const tagLOGIN_AUDIT_REPORT_RESULT*>(result);
  Add(user, std::to_string(id) + " " + std::to_string(r.value) + " " + r.text);
}
void OnQuery(unsigned int id, void* user, const void* result) {
  const auto& r = *static_cast<const tagLOGIN_AUDIT_QUERY_RESULT*>(result);
  std::string text = std::to_string(id);
  for (std::uint32_t i = 0; i < r.count; ++i) {
    text += " " + std::to_string(r.entries[i].value) + r.entries[i].text +
            std::to_string(r.entries[i].value8);
  }
  Add(user, text);
}

class LoginTest : public testing::Test {
 protected:
  LoginTest() { orb_login_reg_audit_callbacks(&OnUpload, &OnReport, &OnQuery); }
  ~LoginTest() override {
    orb_login_reg_audit_callbacks(nullptr, nullptr, nullptr);
    orb_config_ref_clear();
  }

  void SetBase(const std::string& base) {
    support::WriteWholeFile(m_dir.File("platform.json"),
                            R"({"audit":{"baseAddress":")" + base + "\"}}");
    orb_config_set_directory(m_dir.Path());
  }
  void SetBase(std::uint16_t port) { SetBase("http://127.0.0.1:" + std::to_string(port) + "/"); }

  static int Send(tagLOGIN_AUDIT_REPORT report) {
    report.user = &g_answers;
    return orb_login_report_audit_task(&report);
  }
  static std::string Upload(const std::string& path) {
    tagLOGIN_AUDIT_UPLOAD upload = {};
    std::strcpy(upload.path, path.c_str());
    std::strcpy(upload.name, "task.txt");
    upload.user = &g_answers;
    EXPECT_EQ(orb_login_upload_audit_file(&upload), 0);
    return g_answers.Take().front();
  }

  const support::TempDir m_dir;
};

TEST_F(LoginTest, RefusesWithoutAServerOrWithTextsThatHaveNoEnd) {
  SetBase("");
  std::vector<std::string> lines;
  logger_ref_set_sink([&lines](const LogSinkLine& line) { lines.push_back(line.text); });
  const tagLOGIN_AUDIT_UPLOAD upload = {};
  tagLOGIN_AUDIT_QUERY query = {};
  EXPECT_EQ(orb_login_upload_audit_file(&upload), kLoginNoBaseAddress);
  EXPECT_EQ(Send({}), kLoginNoBaseAddress);
  EXPECT_EQ(orb_login_query_audit_task(&query), kLoginNoBaseAddress);
  logger_ref_reset();
  EXPECT_EQ(lines, std::vector<std::string>(3, "audit: no base address is set, nothing is sent"));
  EXPECT_EQ(orb_login_upload_audit_file(nullptr), kLoginBadArgument);
  std::memset(query.text, 'x', sizeof(query.text));
  EXPECT_EQ(orb_login_query_audit_task(&query), kLoginBadArgument);
  EXPECT_EQ(orb_login_set_smartroom_param(nullptr), kLoginBadArgument);
  char room[32] = "room";
  EXPECT_EQ(orb_login_set_smartroom_param(room), 0);
  std::memset(room, 'x', sizeof(room));
  EXPECT_EQ(orb_login_set_smartroom_param(room), kLoginBadArgument);
  tagCONFCTRL_TERMINAL_PUBLIC_SDK terminal = {};
  EXPECT_EQ(orb_confctrl_set_terminal_public_sdk_param(&terminal), 0);
  std::memset(terminal.account, 'x', sizeof(terminal.account));
  EXPECT_EQ(orb_confctrl_set_terminal_public_sdk_param(&terminal), kLoginBadArgument);
}

TEST_F(LoginTest, SendsTheThreeRequestsAndHandsTheAnswersBack) {
  std::vector<LoopbackRequest> seen;  // written before the answer goes out
  LoopbackServer server(SOCK_STREAM, [&seen](int client) {
    ASSERT_TRUE(zelctl::ReadRequest(client, &seen.emplace_back()));
    zelctl::SendAnswer(client, "200 OK", "",
                       R"({"code":7,"fileId":"f","message":"m","value":-8,"text":"t","entries":[)"
                       R"({"value":1,"text":"a","value8":1099511627776},{"value":"no"},5]})");
  });
  SetBase(server.Port());
  support::WriteWholeFile(m_dir.File("audit.txt"), "the content");
  EXPECT_EQ(Upload(m_dir.File("audit.txt")), "7 f m");
  EXPECT_EQ(seen[0].target, "/audit/files");
  EXPECT_NE(seen[0].body.find("filename=\"task.txt\""), std::string::npos);
  EXPECT_NE(seen[0].body.find("\r\n\r\nthe content\r\n"), std::string::npos);
  EXPECT_EQ(Send({4000000000U, 1, "done \"1\"", nullptr}), 0);
  EXPECT_EQ(g_answers.Take().front(), "4000000000 -8 t");
  Json::Value body;
  ASSERT_TRUE(Json::Reader().parse(seen[1].body, body));
  EXPECT_EQ(seen[1].target, "/audit/reports");
  EXPECT_EQ(body["id"].asUInt(), 4000000000U);
  EXPECT_EQ(body["text"].asString(), "done \"1\"");
  const tagLOGIN_AUDIT_QUERY query = {5, "which", &g_answers};
  EXPECT_EQ(orb_login_query_audit_task(&query), 0);
  EXPECT_EQ(g_answers.Take().front(), "5 1a1099511627776 00");
  EXPECT_EQ(seen[2].target, "/audit/queries");
}

TEST_F(LoginTest, AServerThatDoesNotBehaveCostsACode) {
  const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
  const std::pair<std::string, int> cases[] = {
      {"HTTP/1.1 500 Broken\r\n\r\n{}", kAuditRefused},
      {"HTTP/1.1 302 Found\r\n\r\n{}", kAuditRefused},
      {head + "[1]", kAuditBadAnswer},
      {head + std::string(5000, '['), kAuditBadAnswer},
      {head + R"({"value":0})" + std::string(100000, ' '), kAuditBadAnswer},  // cut
      {head + R"({"value":"0"})", kAuditBadAnswer},
      {head + R"({"value":0} rubbish)", kAuditBadAnswer},
      {"", kAuditNoAnswer}};
  for (const auto& [answer, code] : cases) {
    LoopbackServer server(SOCK_STREAM, [&text = answer](int client) {
      LoopbackRequest request;
      if (zelctl::ReadRequest(client, &request)) zelctl::SendAll(client, text);
    });
    SetBase(server.Port());
    EXPECT_EQ(Send({1, 0, "", nullptr}), 0);
    EXPECT_EQ(g_answers.Take().front(), "1 " + std::to_string(code) + " ") << answer;
  }
}

TEST_F(LoginTest, SendsNoFileThatIsTooLargeOrNone) {
  SetBase(support::LoopbackPort().Number());
  const std::string tooLarge = m_dir.File("large");
  support::WriteWholeFile(tooLarge, "");
  std::filesystem::resize_file(tooLarge, 64 * 1024 * 1024 + 1);  // takes no room on the disk
  for (const std::string& path : {m_dir.File("missing"), std::string("/dev/zero"), tooLarge}) {
    EXPECT_EQ(Upload(path), std::to_string(kAuditFile) + "  ") << path;
  }
}

TEST_F(LoginTest, KeepsTheOrderOfAFullQueueAndRefusesWhatDoesNotFit) {
  constexpr unsigned int kWaiting = 256;
  std::promise<void> taken, released;
  LoopbackServer server(SOCK_STREAM, [&, isFirst = true](int client) mutable {
    LoopbackRequest request;
    if (!zelctl::ReadRequest(client, &request)) return;
    if (std::exchange(isFirst, false)) {
      taken.set_value();
      released.get_future().wait();
    }
    zelctl::SendAnswer(client, "200 OK", "", R"({"value":0})");
  });
  SetBase(server.Port());
  EXPECT_EQ(Send({0, 0, "", nullptr}), 0);
  taken.get_future().wait();  // on the wire: no longer in the queue
  for (unsigned int id = 1; id <= kWaiting; ++id) ASSERT_EQ(Send({id, 0, "", nullptr}), 0) << id;
  EXPECT_EQ(Send({999, 0, "", nullptr}), kLoginQueueFull);
  released.set_value();
  const std::vector<std::string> answers = g_answers.Take(kWaiting + 1);
  for (unsigned int i = 0; i <= kWaiting; ++i) ASSERT_EQ(answers[i], std::to_string(i) + " 0 ");
}

}  // namespace
