// What the service's commands leave untried of the calls into network tools and login.
#include <algorithm>
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
  CommonUtilNetworkTest() { SetResult({}); }

  static void SetResult(const std::vector<std::string>& detectIps) {
    support::ResetPlatformDouble();
    support::SetNetScript({{}, 200, kPlatformResult, detectIps});
  }

  CommonUtil& m_facade = CommonUtil::getInst();
};

TEST_F(CommonUtilNetworkTest, TakesProxySettingsWithoutAnEndButNotWithoutAnAddress) {
  commonutil::tagZelUtilProxyInfo proxy = {};
  EXPECT_EQ(m_facade.SetUserInfo(proxy, nullptr, 5), commonutil::kBadParameter);
  EXPECT_EQ(m_facade.SetUserInfo(proxy, "http://x", 0), commonutil::kBadParameter);
  std::fill(std::begin(proxy.server), std::end(proxy.server), 's');
  EXPECT_EQ(m_facade.SetUserInfo(proxy, "http://x", 1), 0);
  EXPECT_EQ(support::CountLogPrefix("<in> proxy=" + std::string(256, 's') + " 0  psdnum=0"), 1);
}

TEST_F(CommonUtilNetworkTest, SetsKnownServersFirstAndTheCallersLast) {
  struct Case {
    std::vector<std::string> known;
    std::vector<Texts> expected;
  };
  const Texts given = {"1", "", "3", ""};  // the last one does not fit
  for (const Case& c : {Case{{"0", "1", "2", "3", "4"}, {given}},
                        Case{{"a", "b", "c", "d", "e", "f", "g"}, {{"c", "d", "e", "f"}, given}}}) {
    SetResult(c.known);
    const std::string tooLong(256, 'x');
    EXPECT_EQ(m_facade.SetNetDetectSrvs("1", nullptr, "3", tooLong.c_str(), "5", "6", true),
              kPlatformResult);
    std::vector<Texts> set;
    for (const PlatformCall& call : support::NetCalls()) {
      if (call.function == "orb_set_net_detect_srvs") set.push_back(call.texts);
    }
    EXPECT_EQ(set, c.expected);
    EXPECT_EQ(support::CountLogPrefix("secure func return err: ", 0), 1);
  }
}

TEST_F(CommonUtilNetworkTest, AuditTextsThatDoNotFitAreSentEmpty) {
  const std::string longest(511, 't');
  const std::string tooLong(512, 't');
  m_facade.UploadAuditFile(longest.c_str(), tooLong.c_str(), nullptr);
  m_facade.ReportAuditTask(4000000000U, true, tooLong.c_str(), nullptr);
  EXPECT_EQ(m_facade.QueryAuditTask(1, tooLong.c_str(), nullptr), kPlatformResult);
  const std::vector<PlatformCall> calls = support::NetCalls();
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].texts, (Texts{longest, ""}));
  EXPECT_EQ(calls[1].texts, Texts{""});
  EXPECT_EQ(calls[1].numbers, (Numbers{4000000000LL, 1}));
  EXPECT_EQ(calls[2].texts, Texts{""});
  EXPECT_EQ(support::CountLogPrefix("secure func return err: ", 0), 3);
}

class Answers : public commonutil::AuditTaskCallback, public commonutil::GetNetDetectCallback {
 public:
  void onUpload(const commonutil::AuditUploadResult& r) override {
    m_texts.push_back(std::to_string(r.code) + r.text1 + r.text2);
  }
  void onReport(const commonutil::AuditReportResult& r) override {
    m_texts.push_back(std::to_string(r.value) + r.text + std::to_string(r.id));
  }
  void onQuery(const std::vector<commonutil::AuditTaskResultInfo>& results) override {
    m_texts.push_back(std::to_string(results.size()));
    for (const auto& r : results) {
      m_texts.push_back(std::to_string(r.value) + r.text + std::to_string(r.value8));
    }
  }
  void onResult(tagNET_DETECT_PROCESS_RESULT& r) override {
    m_texts.push_back(std::to_string(r.sno));
  }

  Texts m_texts;
};

TEST_F(CommonUtilNetworkTest, AnswersReachTheCallersObject) {
  Answers answers;
  commonutil::AuditTaskCallback* const audit = &answers;
  const tagLOGIN_AUDIT_UPLOAD_RESULT upload = {5, "a", "b"};
  const tagLOGIN_AUDIT_REPORT_RESULT report = {6, "c"};
  const tagLOGIN_AUDIT_QUERY_ENTRY entries[] = {{1, "x", 1LL << 40}, {2, nullptr, -1}};
  tagLOGIN_AUDIT_QUERY_RESULT query = {2, entries};
  tagNET_DETECT_PROCESS_RESULT result = {};
  result.sno = 9;

  CommonUtil::OnUploadAuditFileCallback(1, 2, nullptr, &upload);  // nobody asked
  CommonUtil::OnReportAuditTaskCallback(1, audit, nullptr);
  CommonUtil::OnQueryAuditTaskCallback(1, nullptr, &query);
  CommonUtil::NetDetectNotify(result);

  CommonUtil::OnUploadAuditFileCallback(1, 2, audit, &upload);
  CommonUtil::OnReportAuditTaskCallback(77, audit, &report);
  CommonUtil::OnQueryAuditTaskCallback(1, audit, &query);
  query.entries = nullptr;
  CommonUtil::OnQueryAuditTaskCallback(1, audit, &query);
  result.callback = static_cast<commonutil::GetNetDetectCallback*>(&answers);
  CommonUtil::NetDetectNotify(result);
  EXPECT_EQ(answers.m_texts, (Texts{"5ab", "6c77", "2", "1x1099511627776", "2-1", "0", "9"}));
}

}  // namespace
