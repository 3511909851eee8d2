// The facade, as far as the service's commands leave it untried.
#include "CommonUtil.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "publicInc/CommonUtilManager.h"
#include "publicInc/ResultCode.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/Log.h"
#include "zel_platform/login.h"
#include "zel_platform/nettools.h"

namespace commonutil {

// The tests' own layout of a sub-event.
struct tagZelSubEventParam {
  int number;
};

namespace {

using support::CountLog;
using support::CountLogPrefix;
using support::PlatformCall;
using Texts = std::vector<std::string>;
using Numbers = std::vector<long long>;

constexpr int kPlatformResult = 17;
constexpr int kTrackResult = 21;

// A manager of the test's own: the process's initialises once only.
class OwnManager : public CommonUtilManager {};

class CommonUtilTest : public testing::Test {
 protected:
  CommonUtilTest() {
    SetPlatform({});
    std::memset(m_param.logPath, '/', sizeof(m_param.logPath));  // without its NUL
    std::strcpy(m_param.dbPath, m_dir.Path().c_str());
    m_param.logLevel = 3;
    m_param.logSize = 100;
    m_param.fileCount = 4;
  }

  static void SetPlatform(const Texts& detectIps) {
    support::ResetPlatformDouble();
    support::SetNetScript({kPlatformResult, detectIps});
    support::SetTrackResult(kTrackResult);
  }
  static PlatformCall LastTrack() { return support::TrackCalls().back(); }

  const support::TempDir m_dir;
  tagZelUtilInitParam m_param = {};
  OwnManager m_manager;
  CommonUtil& m_facade = CommonUtil::getInst();
};

TEST_F(CommonUtilTest, InitialisesOnceAndGoesOnWithoutTracking) {
  support::SetInitUnifiedTrackResult(9);
  EXPECT_EQ(m_manager.InitCommonUtil(m_param, nullptr), 0);
  EXPECT_EQ(m_manager.GetDBPath(), m_dir.Path());
  EXPECT_EQ(support::SensitiveWords().at(0), m_dir.Path());
  EXPECT_EQ(CountLogPrefix("Init, logPath = " + std::string(sizeof(m_param.logPath), '/') +
                           ", logLevel = 3, logSize = 100, fileCount = 4 , dbPath = " +
                           m_dir.Path() + " build time is "),
            1);
  EXPECT_EQ(CountLogPrefix("build at version: "), 1);
  EXPECT_EQ(CountLog("UTManager init unified track err:9", kError), 1);
  EXPECT_EQ(LastTrack().texts,
            (Texts{"1", "ut_event_sdk_init_db", "(null)", "(null)", R"({"errorCode":0})"}));
  m_manager.UpdateLogPath("/elsewhere/", LOGGER_LEVEL_ERROR);  // the level stays
  EXPECT_EQ(LastTrack().numbers, (Numbers{3, 100, 4}));
  EXPECT_EQ(LastTrack().texts, Texts{"/elsewhere/"});
  support::ClearLog();
  EXPECT_EQ(m_manager.InitCommonUtil(m_param, nullptr), 2);
  EXPECT_EQ(support::LogTexts(), Texts());
}

TEST_F(CommonUtilTest, AFailedDatabaseGivesOneAndStaysTheOnlyTry) {
  support::SetZormScript({{}, {77}, 0});
  EXPECT_EQ(m_manager.InitCommonUtil(m_param, nullptr), 1);
  EXPECT_EQ(CountLog("InitDB err, ret = 77", kError), 1);
  EXPECT_EQ(m_manager.InitCommonUtil(m_param, nullptr), 2);
}

TEST_F(CommonUtilTest, DeviceGuidReportsItsLengthEvenWhenItDoesNotFit) {
  m_facade.SetDeviceGuid("0123456");
  m_facade.SetDeviceGuid(nullptr);
  for (int length : {-1, 0, 7, 8}) {
    const bool fits = length == 8;
    support::ClearLog();
    char buffer[8] = "before";
    m_facade.GetDeviceGuid(buffer, length);
    EXPECT_EQ(length, 7);
    EXPECT_EQ(std::strcmp(buffer, "0123456") == 0, fits);
    EXPECT_EQ(CountLogPrefix("secure function return err: ", kError), fits ? 0 : 1);
    m_facade.GetDeviceGuid(nullptr, length);
  }
}

TEST_F(CommonUtilTest, TakesProxySettingsWithoutAnEndButNotWithoutAnAddress) {
  tagZelUtilProxyInfo proxy = {};
  EXPECT_EQ(m_facade.SetUserInfo(proxy, nullptr, 5), kBadParameter);
  EXPECT_EQ(m_facade.SetUserInfo(proxy, "http://x", 0), kBadParameter);
  std::fill(std::begin(proxy.server), std::end(proxy.server), 's');
  EXPECT_EQ(m_facade.SetUserInfo(proxy, "http://x", 1), 0);
  EXPECT_EQ(CountLogPrefix("<in> proxy=" + std::string(256, 's') + " 0  psdnum=0"), 1);
}

TEST_F(CommonUtilTest, SetsKnownServersFirstAndTheCallersLast) {
  struct Case {
    Texts known;
    std::vector<Texts> expected;
  };
  const Texts given = {"1", "", "3", ""};  // the last one does not fit
  for (const Case& c : {Case{{"0", "1", "2", "3", "4"}, {given}},
                        Case{{"a", "b", "c", "d", "e", "f", "g"}, {{"c", "d", "e", "f"}, given}}}) {
    SetPlatform(c.known);
    const std::string tooLong(256, 'x');
    EXPECT_EQ(m_facade.SetNetDetectSrvs("1", nullptr, "3", tooLong.c_str(), "5", "6", true),
              kPlatformResult);
    std::vector<Texts> set;
    for (const PlatformCall& call : support::NetCalls()) {
      if (call.function == "orb_set_net_detect_srvs") set.push_back(call.texts);
    }
    EXPECT_EQ(set, c.expected);
    EXPECT_EQ(CountLogPrefix("secure func return err: ", kError), 1);
  }
}

TEST_F(CommonUtilTest, AuditTextsThatDoNotFitAreSentEmpty) {
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
  EXPECT_EQ(CountLogPrefix("secure func return err: ", kError), 3);
}

struct Answers : AuditTaskCallback, GetNetDetectCallback {
  void onUpload(const AuditUploadResult& r) override {
    text += std::to_string(r.code) + r.text1 + r.text2;
  }
  void onReport(const AuditReportResult& r) override {
    text += " " + std::to_string(r.value) + r.text + std::to_string(r.id);
  }
  void onQuery(const std::vector<AuditTaskResultInfo>& results) override {
    text += " [";
    for (const auto& r : results) {
      text += std::to_string(r.value) + r.text + std::to_string(r.value8) + "]";
    }
  }
  void onResult(tagNET_DETECT_PROCESS_RESULT& r) override { text += " " + std::to_string(r.sno); }

  std::string text;
};

TEST_F(CommonUtilTest, AnswersReachTheCallersObject) {
  Answers answers;
  AuditTaskCallback* const audit = &answers;
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
  EXPECT_EQ(answers.text, "");
  CommonUtil::OnUploadAuditFileCallback(1, 2, audit, &upload);
  CommonUtil::OnReportAuditTaskCallback(77, audit, &report);
  CommonUtil::OnQueryAuditTaskCallback(1, audit, &query);
  query.entries = nullptr;
  CommonUtil::OnQueryAuditTaskCallback(1, audit, &query);
  result.callback = static_cast<GetNetDetectCallback*>(&answers);
  CommonUtil::NetDetectNotify(result);
  EXPECT_EQ(answers.text, "5ab 6c77 [1x1099511627776]2-1] [ 9");
}

TEST_F(CommonUtilTest, AnEventsIndexHasATextAndALength) {
  for (const auto& [index, length] :
       {std::pair<const char*, unsigned long>{nullptr, 5}, {"x", 0}}) {
    EXPECT_EQ(m_facade.UTStartEvent(index, length), kBadParameter);
    EXPECT_EQ(m_facade.UTFinishEvent(index, length, {}), kBadParameter);
    EXPECT_EQ(m_facade.UTAddSubEvent(index, length, {}), kBadParameter);
  }
  EXPECT_EQ(CountLogPrefix("params error! indexLen: "), 2);
  EXPECT_TRUE(support::TrackCalls().empty());
}

// Each call in a text: the function, then its texts, then its numbers.
Texts Shown(const std::vector<PlatformCall>& calls) {
  Texts shown;
  for (const PlatformCall& call : calls) {
    std::string& line = shown.emplace_back(call.function);
    for (const std::string& text : call.texts) line += " " + text;
    for (const long long number : call.numbers) line += " " + std::to_string(number);
  }
  return shown;
}

TEST_F(CommonUtilTest, ThinCallsPassArgumentsAndResultsOn) {
  for (const int result :
       {m_facade.HttpSetProxy("d", "u", "p", 8080), m_facade.HttpProxyConnect(5, "h", 443),
        m_facade.SetLocalIP("1", "2"), m_facade.NetDetect(3, nullptr)}) {
    EXPECT_EQ(result, kPlatformResult);
  }
  EXPECT_EQ(Shown(support::NetCalls()),
            (Texts{"orb_http_set_proxy d u p 8080", "orb_http_proxy_connect h 5 443",
                   "orb_set_local_addr_str 1 2", "orb_net_detect_jni 3"}));
  tagZelUtilSpecialParam event = {"id", "1", "2", "3", "{}", 77};
  for (const int result :
       {m_facade.UTUploadData(), m_facade.UTConfigCustomParam({5, {6, 7}}),
        m_facade.UTAddConfMediaTrack(7, "data", true), m_facade.UTStartEvent("index", 3),
        m_facade.UTAddSubEvent("index", 3, {}), m_facade.UTFinishEvent("index", 3, event),
        m_facade.UTAddUserTrack(event), m_facade.UTSetCpuAndMemoryParam({{1, 2, 3}, "text"})}) {
    EXPECT_EQ(result, kTrackResult);
  }
  EXPECT_EQ(
      Shown(support::TrackCalls()),
      (Texts{"Track_UploadUserTrack", "Track_ConfigCustomParam 5 1",
             "MediaTrack_AddDataConfDotData data 7 1", "Track_StartEvent ind 3",
             "Track_AddSubEvent ind 3 1", "Track_FinishEvent ind id 1 2 3 {} 3 77",
             "Track_AddUserTrack id 1 2 3 {} 0", "MediaTrack_SetCpuAndMemoryInfo text 1 2 3"}));
  EXPECT_EQ(CountLog("[UT] end or leave conf, upload", kInfo), 1);
  std::fill(std::begin(event.args), std::end(event.args), 'a');  // without its NUL
  EXPECT_EQ(m_facade.UTAddMediaTrack(event, true), kTrackResult);
  EXPECT_EQ(LastTrack().texts, (Texts{"id", "1", "2", "3", std::string(8192, 'a')}));
  EXPECT_EQ(LastTrack().numbers, (Numbers{0, 1}));
}

TEST_F(CommonUtilTest, PublicParametersAreNarrowedAndReplaceTheGuid) {
  tagZelUtilPublicParam param = {};
  const auto fill = [](auto& field, std::size_t length) {
    std::fill_n(std::begin(field), length, 'x');
  };
  fill(param.deviceId, 127);
  fill(param.cpu, 64);            // one too long
  fill(param.osVersion, 31);      // fits
  fill(param.appId, 64);          // no NUL, and fits
  fill(param.accessSubtype, 16);  // no NUL, and does not fit
  EXPECT_EQ(m_facade.UTConfigPublicParam(param), 0);
  const std::string xs(127, 'x');
  EXPECT_EQ(LastTrack().texts, (Texts{"", xs, "", "", "", "", xs.substr(0, 64), "", "",
                                      xs.substr(0, 31), "", "", ""}));
  EXPECT_EQ(CountLogPrefix("secure function return err: ", kError), 1);  // one sum
  EXPECT_EQ(CommonUtilManager::GetInstance().GetDeviceGuid(), xs);
  EXPECT_EQ(m_facade.UTConfigPublicParam({}), 0);
  EXPECT_EQ(CountLog("[UT] start!", kInfo), 2);
  EXPECT_EQ(CountLog("m_sDeviceGuid is empty.", kWarning), 1);
}

TEST_F(CommonUtilTest, UploadParametersAreLoggedWithoutTheirSecrets) {
  UTUpLoadParam("acc", "tok", 1, "addr", "ca", 2, 3, "proxy", "pacc", "secret").ToInfoLog();
  UTPublicSdkParam("u", "a", "g", "s", "5", "6", "7", "8", "9", "10").ToInfoLog();
  EXPECT_EQ(support::LogTexts(),
            (Texts{"[UT] uploadParam , account = acc , token =  , serverPentraPort = 1 , "
                   "serverPentraAddress = addr , caCertPath = ca , tlsMode = 2 , proxyPort = 3 , "
                   "proxyAddress = proxy , proxyAccount = pacc",
                   "[UT] UTPublicSdkParam, uuid = u , account = a , gantryIp = g , sbcIp = s"}));
}

}  // namespace
}  // namespace commonutil
