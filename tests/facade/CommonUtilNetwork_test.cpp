#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommonUtil.h"
#include "publicInc/ResultCode.h"
#include "support/PlatformDouble.h"
#include "zel_platform/login.h"
#include "zel_platform/nettools.h"

namespace {

using commonutil::CommonUtil;
using support::PlatformCall;
using Texts = std::vector<std::string>;
using Numbers = std::vector<long long>;

constexpr int kPlatformResult = 17;

class CommonUtilNetworkTest : public testing::Test {
 protected:
  CommonUtilNetworkTest() {
    support::ResetPlatformDouble();
    SetResult({});
  }

  static void SetResult(std::vector<std::string> detectIps) {
    support::NetScript script;
    script.result = kPlatformResult;
    script.detectIps = std::move(detectIps);
    support::SetNetScript(script);
  }

  // The arguments of the last call, if it was this one.
  static PlatformCall Last(const std::string& function) {
    const std::vector<PlatformCall> calls = support::NetCalls();
    if (calls.empty() || calls.back().function != function) return {};
    return calls.back();
  }

  CommonUtil& m_facade = CommonUtil::getInst();
};

TEST_F(CommonUtilNetworkTest, PassesArgumentsAndResultsThrough) {
  EXPECT_EQ(m_facade.HttpSetProxy("d", nullptr, "p", 65535), kPlatformResult);
  EXPECT_EQ(Last("orb_http_set_proxy").texts, (Texts{"d", "(null)", "p"}));
  EXPECT_EQ(m_facade.HttpProxyConnect(9, "h", 443), kPlatformResult);
  EXPECT_EQ(Last("orb_http_proxy_connect").numbers, (Numbers{9, 443}));
  EXPECT_EQ(m_facade.SetLocalIP("a", nullptr), kPlatformResult);
  EXPECT_EQ(Last("orb_set_local_addr_str").texts, (Texts{"a", "(null)"}));
  EXPECT_EQ(m_facade.NetDetect(3, nullptr), kPlatformResult);
  EXPECT_EQ(Last("orb_net_detect_jni").numbers, Numbers{3});
  commonutil::tagZelUtilProxyInfo proxy = {};
  EXPECT_EQ(m_facade.SetUserInfo(proxy, nullptr, 5), commonutil::kBadParameter);
  EXPECT_EQ(m_facade.SetUserInfo(proxy, "http://x", 0), commonutil::kBadParameter);
  std::fill(std::begin(proxy.server), std::end(proxy.server), 's');  // no NUL anywhere
  EXPECT_EQ(m_facade.SetUserInfo(proxy, "http://x", 1), 0);
  EXPECT_EQ(support::CountLogPrefix("<in> proxy=" + std::string(256, 's') + " 0  psdnum=0"), 1);
}

TEST_F(CommonUtilNetworkTest, SetsKnownServersFirstAndTheCallersLast) {
  struct Case {
    std::vector<std::string> known;
    int tls;
    std::vector<Texts> expected;
  };
  const Texts given = {"1", "", "3", ""};  // the last one does not fit
  for (const Case& c :
       {Case{{}, 0, {given}}, Case{{"0", "1", "2", "3", "4"}, 5, {given}},
        Case{{"a", "b", "c", "d", "e", "f", "g"}, -1, {{"c", "d", "e", "f"}, given}}}) {
    support::ResetPlatformDouble();
    SetResult(c.known);
    support::SetIntegerSetting(69, c.tls);
    EXPECT_EQ(
        m_facade.SetNetDetectSrvs("1", nullptr, "3", std::string(256, 'x').c_str(), "5", "6", true),
        kPlatformResult);
    std::vector<Texts> set;
    for (const PlatformCall& call : support::NetCalls()) {
      if (call.function != "orb_set_net_detect_srvs") continue;
      set.push_back(call.texts);
      EXPECT_EQ(call.numbers, Numbers(4, c.tls == 0 ? 0 : 2));
    }
    EXPECT_EQ(set, c.expected);
    EXPECT_EQ(support::CountLogPrefix("secure func return err: ", 0), 1);
  }
}

TEST_F(CommonUtilNetworkTest, AuditTextsThatDoNotFitAreSentEmpty) {
  const std::string tooLong(512, 't');
  EXPECT_EQ(m_facade.UploadAuditFile(tooLong.c_str(), tooLong.c_str(), nullptr), kPlatformResult);
  EXPECT_EQ(Last("orb_login_upload_audit_file").texts, (Texts{"", ""}));
  EXPECT_EQ(support::CountLogPrefix("secure func return err: ", 0), 1);  // one sum
  EXPECT_EQ(m_facade.UploadAuditFile(std::string(511, 'p').c_str(), nullptr, nullptr),
            kPlatformResult);
  EXPECT_EQ(Last("orb_login_upload_audit_file").texts[0].size(), 511U);
  EXPECT_EQ(m_facade.ReportAuditTask(4000000000U, true, "text", nullptr), kPlatformResult);
  EXPECT_EQ(Last("orb_login_report_audit_task").numbers, (Numbers{4000000000LL, 1}));
  EXPECT_EQ(m_facade.QueryAuditTask(1, tooLong.c_str(), nullptr), kPlatformResult);
  EXPECT_EQ(Last("orb_login_query_audit_task").texts, Texts{""});
}

class Answers : public commonutil::AuditTaskCallback, public commonutil::GetNetDetectCallback {
 public:
  void onUpload(const commonutil::AuditUploadResult& r) override {
    m_texts = {std::to_string(r.code), r.text1, r.text2};
  }
  void onReport(const commonutil::AuditReportResult& r) override {
    m_texts = {std::to_string(r.value), r.text, std::to_string(r.id)};
  }
  void onQuery(const std::vector<commonutil::AuditTaskResultInfo>& results) override {
    m_texts = {};
    for (const auto& r : results) {
      m_texts.push_back(std::to_string(r.value) + r.text + std::to_string(r.value8));
    }
  }
  void onResult(tagNET_DETECT_PROCESS_RESULT& r) override { m_texts = {std::to_string(r.sno)}; }

  Texts m_texts{"untouched"};
};

TEST_F(CommonUtilNetworkTest, AnswersReachTheCallersObject) {
  Answers answers;
  commonutil::AuditTaskCallback* const audit = &answers;
  const tagLOGIN_AUDIT_UPLOAD_RESULT upload = {5, "a", "b"};
  const tagLOGIN_AUDIT_REPORT_RESULT report = {6, "c"};
  const tagLOGIN_AUDIT_QUERY_ENTRY entries[] = {{1, "x", 1LL << 40}, {2, nullptr, -1}};
  tagLOGIN_AUDIT_QUERY_RESULT query = {2, entries};

  CommonUtil::OnUploadAuditFileCallback(1, 2, nullptr, &upload);
  CommonUtil::OnReportAuditTaskCallback(1, audit, nullptr);
  CommonUtil::OnQueryAuditTaskCallback(1, nullptr, &query);
  EXPECT_EQ(answers.m_texts, Texts{"untouched"});
  CommonUtil::OnUploadAuditFileCallback(1, 2, audit, &upload);
  EXPECT_EQ(answers.m_texts, (Texts{"5", "a", "b"}));
  CommonUtil::OnReportAuditTaskCallback(77, audit, &report);
  EXPECT_EQ(answers.m_texts, (Texts{"6", "c", "77"}));
  CommonUtil::OnQueryAuditTaskCallback(1, audit, &query);
  EXPECT_EQ(answers.m_texts, (Texts{"1x1099511627776", "2-1"}));
  query.entries = nullptr;
  CommonUtil::OnQueryAuditTaskCallback(1, audit, &query);
  EXPECT_EQ(answers.m_texts, Texts{});

  tagNET_DETECT_PROCESS_RESULT result = {};
  CommonUtil::NetDetectNotify(result);  // nobody asked
  result.sno = 9;
  result.callback = static_cast<commonutil::GetNetDetectCallback*>(&answers);
  CommonUtil::NetDetectNotify(result);
  EXPECT_EQ(answers.m_texts, Texts{"9"});
}

}  // namespace
