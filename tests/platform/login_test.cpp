// Audit requests against a server that answers as each case wants.
#include "zel_platform/login.h"

#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/reader.h>

#include "LoopbackServer.h"
#include "config/config_ref.h"
#include "config/settings.h"
#include "logger/logger_ref.h"
#include "login/login_ref.h"
#include "support/Peer.h"
#include "support/TempDir.h"

namespace {

using zelctl::LoopbackRequest;

constexpr int kAmpleMs = 120000;

// One answer of the library, in a line.
class Answers {
 public:
  static Answers& Instance() {
    static Answers* const instance = new Answers;
    return *instance;
  }
  static void Upload(unsigned int, int code, void* user, const void* result) {
    const auto& r = *static_cast<const tagLOGIN_AUDIT_UPLOAD_RESULT*>(result);
    EXPECT_EQ(code, r.code);
    Instance().Add(user, std::to_string(r.code) + " " + r.text1 + " " + r.text2);
  }
  static void Report(unsigned int id, void* user, const void* result) {
    const auto& r = *static_cast<const tagLOGIN_AUDIT_REPORT_RESULT*>(result);
    Instance().Add(user, std::to_string(id) + " " + std::to_string(r.value) + " " + r.text);
  }
  static void Query(unsigned int id, void* user, const void* result) {
    const auto& r = *static_cast<const tagLOGIN_AUDIT_QUERY_RESULT*>(result);
    std::string text = std::to_string(id);
    for (std::uint32_t i = 0; i < r.count; ++i) {
      text += " " + std::to_string(r.entries[i].value) + r.entries[i].text +
              std::to_string(r.entries[i].value8);
    }
    Instance().Add(user, text);
  }

  std::string Await() {
    std::unique_lock<std::mutex> hold(m_lock);
    m_added.wait(hold, [this] { return !m_texts.empty(); });
    const std::string first = m_texts.front();
    m_texts.erase(m_texts.begin());
    return first;
  }

  int mark = 0;  // its address is the requests' `user`

 private:
  void Add(void* user, const std::string& text) {
    EXPECT_EQ(user, &mark);
    const std::lock_guard<std::mutex> hold(m_lock);
    m_texts.push_back(text);
    m_added.notify_all();
  }

  std::mutex m_lock;
  std::condition_variable m_added;
  std::vector<std::string> m_texts;
};

class LoginTest : public testing::Test {
 protected:
  LoginTest() {
    orb_login_reg_audit_callbacks(&Answers::Upload, &Answers::Report, &Answers::Query);
  }
  ~LoginTest() override {
    orb_login_reg_audit_callbacks(nullptr, nullptr, nullptr);
    orb_config_ref_clear();
  }

  void SetBase(const std::string& base, int totalTimeoutMs = 500) {
    support::WriteWholeFile(m_dir.File("platform.json"),
                            R"({"http":{"totalTimeoutMs":)" + std::to_string(totalTimeoutMs) +
                                R"(},"audit":{"baseAddress":")" + base + "\"}}");
    orb_config_set_directory(m_dir.Path());
  }
  void SetBase(const zelctl::LoopbackServer& server, int totalTimeoutMs = 500) {
    SetBase("http://127.0.0.1:" + std::to_string(server.Port()) + "/", totalTimeoutMs);
  }

  // The code that the report of a task ends with.
  static int AskReport() {
    const tagLOGIN_AUDIT_REPORT report = {1, 0, "", &Answers::Instance().mark};
    EXPECT_EQ(orb_login_report_audit_task(&report), 0);
    const std::string answer = Answers::Instance().Await();
    EXPECT_EQ(answer.rfind("1 ", 0), 0U) << answer;
    return std::stoi(answer.substr(2));
  }

  const support::TempDir m_dir;
};

TEST_F(LoginTest, RefusesWithoutAServerOrWithTextsThatHaveNoEnd) {
  SetBase("");
  std::vector<std::string> lines;
  logger_ref_set_sink([&lines](const LogSinkLine& line) { lines.push_back(line.text); });
  tagLOGIN_AUDIT_UPLOAD upload = {};
  tagLOGIN_AUDIT_REPORT report = {};
  tagLOGIN_AUDIT_QUERY query = {};
  EXPECT_EQ(orb_login_upload_audit_file(&upload), kLoginNoBaseAddress);
  EXPECT_EQ(orb_login_report_audit_task(&report), kLoginNoBaseAddress);
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
  EXPECT_EQ(orb_login_ref_smartroom_param(), "room");

  tagCONFCTRL_TERMINAL_PUBLIC_SDK terminal = {"uuid", "account", "gantry", "sbc"};
  EXPECT_EQ(orb_confctrl_set_terminal_public_sdk_param(&terminal), 0);
  std::memset(terminal.account, 'x', sizeof(terminal.account));
  EXPECT_EQ(orb_confctrl_set_terminal_public_sdk_param(&terminal), kLoginBadArgument);
  EXPECT_STREQ(orb_login_ref_terminal_param().account, "account");
}

TEST_F(LoginTest, SendsTheThreeRequestsAndHandsTheAnswersBack) {
  std::vector<LoopbackRequest> seen;  // written before the answer goes out
  zelctl::LoopbackServer server(SOCK_STREAM, [&seen](int client) {
    LoopbackRequest request;
    ASSERT_TRUE(zelctl::ReadRequest(client, &request));
    seen.push_back(request);
    zelctl::SendAnswer(client, "200 OK", "",
                       R"({"code":7,"fileId":"f","message":"m","value":-8,"text":"t","entries":[)"
                       R"({"value":1,"text":"a","value8":1099511627776},{"value":"no"},5]})");
  });
  SetBase(server);
  support::WriteWholeFile(m_dir.File("audit.txt"), "the content");
  tagLOGIN_AUDIT_UPLOAD upload = {};
  std::strcpy(upload.path, m_dir.File("audit.txt").c_str());
  std::strcpy(upload.name, "task.txt");
  upload.user = &Answers::Instance().mark;
  EXPECT_EQ(orb_login_upload_audit_file(&upload), 0);
  EXPECT_EQ(Answers::Instance().Await(), "7 f m");
  EXPECT_EQ(seen[0].target, "/audit/files");
  EXPECT_NE(seen[0].body.find("filename=\"task.txt\""), std::string::npos);
  EXPECT_NE(seen[0].body.find("the content"), std::string::npos);

  const tagLOGIN_AUDIT_REPORT report = {4000000000U, 1, "done \"1\"", upload.user};
  EXPECT_EQ(orb_login_report_audit_task(&report), 0);
  EXPECT_EQ(Answers::Instance().Await(), "4000000000 -8 t");
  Json::Value body;
  ASSERT_TRUE(Json::Reader().parse(seen[1].body, body));
  EXPECT_EQ(seen[1].target, "/audit/reports");
  EXPECT_EQ(body["id"].asUInt(), 4000000000U);
  EXPECT_EQ(body["text"].asString(), "done \"1\"");

  tagLOGIN_AUDIT_QUERY query = {5, "which", upload.user};
  EXPECT_EQ(orb_login_query_audit_task(&query), 0);
  EXPECT_EQ(Answers::Instance().Await(), "5 1a1099511627776 00");
  EXPECT_EQ(seen[2].target, "/audit/queries");
}

TEST_F(LoginTest, AServerThatDoesNotBehaveCostsACode) {
  const auto answer = [](const char* status, const std::string& body) {
    return [=](int client) { zelctl::SendAnswer(client, status, "", body); };
  };
  const auto raw = [](const char* text) {
    return [=](int client) { zelctl::SendAll(client, text); };
  };
  const std::string tooLong = R"({"value":0,"text":")" + std::string(100000, 'x') + "\"}";
  const std::pair<zelctl::LoopbackServer::Serve, int> cases[] = {
      {answer("500 Broken", "{}"), kAuditRefused},
      {answer("302 Found", "{}"), kAuditRefused},
      {answer("200 OK", "["), kAuditBadAnswer},
      {answer("200 OK", "[1]"), kAuditBadAnswer},
      {answer("200 OK", std::string(5000, '[')), kAuditBadAnswer},
      {answer("200 OK", tooLong), kAuditBadAnswer},
      {answer("200 OK", R"({"value":"0"})"), kAuditBadAnswer},
      {answer("200 OK", "{\"value\":0} rubbish"), kAuditBadAnswer},
      {raw(""), kAuditNoAnswer},
      {raw("nonsense\r\n\r\n"), kAuditNoAnswer}};
  for (const auto& [serve, code] : cases) {
    zelctl::LoopbackServer server(SOCK_STREAM, [&answerIt = serve](int client) {
      LoopbackRequest request;
      if (zelctl::ReadRequest(client, &request)) answerIt(client);
    });
    SetBase(server);
    EXPECT_EQ(AskReport(), code);
  }
}

TEST_F(LoginTest, NamesTheReasonWhyNothingWasSent) {
  const support::LoopbackPort nobody;
  SetBase("http://127.0.0.1:" + std::to_string(nobody.Number()));
  EXPECT_EQ(AskReport(), kAuditNoAnswer);
  const std::string tooLarge = m_dir.File("large");
  support::WriteWholeFile(tooLarge, "");
  std::filesystem::resize_file(tooLarge, 64 * 1024 * 1024 + 1);  // takes no room on the disk
  for (const std::string& path :
       {m_dir.File("missing"), std::string("/dev/zero"), m_dir.Path(), tooLarge}) {
    tagLOGIN_AUDIT_UPLOAD upload = {};
    std::strcpy(upload.path, path.c_str());
    upload.user = &Answers::Instance().mark;
    EXPECT_EQ(orb_login_upload_audit_file(&upload), 0);
    EXPECT_EQ(Answers::Instance().Await(), std::to_string(kAuditFile) + "  ") << path;
  }
}

TEST_F(LoginTest, KeepsTheOrderOfAFullQueueAndRefusesWhatDoesNotFit) {
  constexpr unsigned int kWaiting = 256;
  std::promise<void> taken, released;
  std::shared_future<void> release = released.get_future().share();
  std::atomic<bool> isFirst{true};
  zelctl::LoopbackServer server(SOCK_STREAM, [&](int client) {
    LoopbackRequest request;
    if (!zelctl::ReadRequest(client, &request)) return;
    if (isFirst.exchange(false)) taken.set_value();
    release.wait();
    zelctl::SendAnswer(client, "200 OK", "", R"({"value":0})");
  });
  SetBase(server, kAmpleMs);
  tagLOGIN_AUDIT_REPORT report = {0, 0, "", &Answers::Instance().mark};
  const auto send = [&report] {
    const int result = orb_login_report_audit_task(&report);
    ++report.id;
    return result;
  };
  EXPECT_EQ(send(), 0);
  taken.get_future().wait();  // on the wire: no longer in the queue
  for (unsigned int i = 0; i < kWaiting; ++i) ASSERT_EQ(send(), 0) << i;
  EXPECT_EQ(send(), kLoginQueueFull);
  released.set_value();
  for (unsigned int i = 0; i <= kWaiting; ++i) {
    ASSERT_EQ(Answers::Instance().Await(), std::to_string(i) + " 0 ");
  }
}

}  // namespace
