#include "Load.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include <json/reader.h>

#include "CommonUtil.h"
#include "publicInc/CommonUtilEntry.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "util/LogBusiness.h"
#include "util/Message.h"
#include "util/PublicUtil.h"

namespace campaign {

namespace {

using commonutil::CommonUtil;
using commonutil::CommonUtilPrivateManager;
using commonutil::LogBusiness;
using commonutil::ZelConfigCache;

constexpr int kHangSeconds = 90;
constexpr unsigned kMaxAhead = 1000;           // requests without a reply: the rings hold 2048
constexpr unsigned kFirstDirect = 0x40000000;  // numbers of the requests that take no ring
constexpr unsigned kKeys = 200;

void AnswerFine(int client) {
  zelctl::LoopbackRequest request;
  if (zelctl::ReadRequest(client, &request)) zelctl::SendAnswer(client, "200 OK", "", "");
}

class NoReceiver : public commonutil::GetProxyCompletedCallback {
 public:
  void onResult(const commonutil::ProxyInfo&) override {}
};

template <class Random>
unsigned Below(Random& random, unsigned end) {
  return static_cast<unsigned>(random()) % end;
}

void Pause() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

}  // namespace

Load::Load(Report& report)
    : m_report(report),
      m_origin(SOCK_STREAM, AnswerFine),
      m_threads{{{"import", &Load::Import},
                 {"export", &Load::Export},
                 {"restart", &Load::Restart},
                 {"process", &Load::ProcessDirectly},
                 {"cache 1", &Load::UseCacheOne},
                 {"cache 2", &Load::UseCacheTwo},
                 {"logs", &Load::MoveLogs},
                 {"watch", &Load::WatchAndTrack}}} {
  Initialise();
}

void Load::Initialise() {
  for (const char* name : {"/log", "/one", "/two"}) {
    std::filesystem::create_directory(m_dir.Path() + name);
  }
  commonutil::tagZelUtilInitParam param = {};
  std::snprintf(param.dbPath, sizeof param.dbPath, "%s", m_dir.Path().c_str());
  std::snprintf(param.logPath, sizeof param.logPath, "%s/log/", m_dir.Path().c_str());
  param.logLevel = 2;
  param.logSize = 512;
  param.fileCount = 2;
  if (CommonUtil::getInst().InitCommonUtil(param, nullptr) != 0) {
    m_report.Find("the library cannot be initialised");
  }
  commonutil::tagZelUtilProxyInfo proxy = {};
  std::snprintf(proxy.server, sizeof proxy.server, "127.0.0.1");
  proxy.port = 1;
  const std::string url = "http://127.0.0.1:" + std::to_string(m_origin.Port()) + "/";
  (void)CommonUtil::getInst().SetUserInfo(proxy, url.c_str(), url.size());
  if (CommonUtilServiceStartup() != 0) m_report.Find("the service does not start");
}

long long Load::Run(const std::function<void(int second)>& eachSecond) {
  std::vector<std::thread> running;
  for (Thread& thread : m_threads) {
    running.emplace_back([this, &thread, seed = m_report.Seed() + running.size()] {
      Random random(static_cast<unsigned>(seed) * 2654435761U + 1);
      for (; !m_isOver; ++thread.steps) (this->*thread.step)(random);
    });
  }
  const auto start = std::chrono::steady_clock::now();
  for (int second = 1; second <= m_report.Seconds(); ++second) {
    std::this_thread::sleep_until(start + std::chrono::seconds(second));
    eachSecond(second);
    CheckProgress(second);
  }
  m_isOver = true;
  // The last thread may hang as well.
  for (int second = m_report.Seconds() + 1; !running.empty(); ++second) {
    running.back().join();
    running.pop_back();
  }
  CommonUtilServiceShutDown();
  if (m_gaps > m_shutDowns) {
    m_report.Find("replies are missing " + std::to_string(m_gaps) + " times in " +
                  std::to_string(m_shutDowns) + " shut-downs");
  }
  long long operations = 0;
  for (const Thread& thread : m_threads) operations += thread.steps;
  return operations;
}

Json::Value Load::Operations() const {
  Json::Value operations;
  for (const Thread& thread : m_threads) operations[thread.name] = Json::Int64(thread.steps);
  operations["shut-downs"] = m_shutDowns.load();
  operations["gaps"] = m_gaps;
  return operations;
}

void Load::CheckProgress(int second) {
  for (std::size_t i = 0; i < kThreads; ++i) {
    const long long steps = m_threads[i].steps;
    if (steps != m_seenSteps[i]) m_seenSecond[i] = second;
    m_seenSteps[i] = steps;
    if (second - m_seenSecond[i] < kHangSeconds) continue;
    m_report.Find(std::string("hangs: ") + m_threads[i].name);
    std::_Exit(m_report.End(steps));
  }
}

void Load::Import(Random&) {
  const unsigned next = m_imported + 1;
  if (next - m_answered > kMaxAhead) Pause();
  const std::string request =
      R"({"cmd":11,"description":"storm","sno":)" + std::to_string(next) + "}";
  if (CommonUtilRecvMsgImport(request.data(), request.size()) == 1) {
    m_imported = next;
  } else {
    Pause();
  }
}

void Load::Export(Random&) {
  char* message = nullptr;
  if (CommonUtilSendMsgExport(&message) != 1) {
    (void)CommonUtilWaitExportMsg(5);
    return;
  }
  TakeReply(message);
  CommonUtilFreeExportMsg(message);
}

void Load::TakeReply(const std::string& text) {
  static const std::unique_ptr<Json::CharReader>& reader =
      *new std::unique_ptr<Json::CharReader>(Json::CharReaderBuilder().newCharReader());
  Json::Value reply;
  if (!reader->parse(text.data(), text.data() + text.size(), &reply, nullptr) ||
      !reply.isObject()) {
    m_report.Find("no JSON object: " + text);
    return;
  }
  if (reply["rsp"].isUInt() && reply["sno"].isUInt()) CheckOrder(reply["sno"].asUInt());
}

// Replies come in the order of the requests; one shut-down drops at most one run of them.
void Load::CheckOrder(unsigned number) {
  if (number >= kFirstDirect) {
    // Answers about the proxy come from other threads, in any order: they have number 0.
    if (number <= m_lastDirect) m_report.Find("a direct reply comes twice or late");
    m_lastDirect = number;
    return;
  }
  if (number == 0) return;
  const unsigned last = m_answered;
  if (number <= last) m_report.Find("reply " + std::to_string(number) + " comes twice or late");
  if (number > m_imported + 1) m_report.Find("a reply to nothing");
  if (number > last + 1) ++m_gaps;
  m_answered = number;
}

// A service that has not begun to work cannot be shut down: it has to have answered first.
void Load::Restart(Random& random) {
  const unsigned target = m_imported + 2;  // one may be on its way into the old service
  while (!m_isOver && static_cast<int>(m_answered - target) < static_cast<int>(Below(random, 50))) {
    Pause();
  }
  if (m_isOver) return;
  ++m_shutDowns;
  CommonUtilServiceShutDown();
  if (CommonUtilServiceStartup() != 0) m_report.Find("the service does not start again");
}

void Load::ProcessDirectly(Random& random) {
  static const char* const kRequests[] = {
      R"({"cmd":2,"param":{"publicParam":{"version":"9","deviceId":"d"}},)",
      R"({"cmd":3,"param":{"contextParam":{"eventId":"7","arg1":"join"}},)",
      R"({"cmd":4,"param":{"index":"meeting"},)",
      R"({"cmd":5,"param":{"index":"meeting","contextParam":{"eventId":"8"}},)",
      R"({"cmd":9,"param":{"customParam":{"uploadSwitch":true}},)",
      R"({"cmd":14,"param":{"internet_server_domain":"127.0.0.1"},)",
      R"({"cmd":1,"param":{"initParam":{}},)",
      R"({"cmd":15,"param":{"proxy_port":1},"proxy_domain":"p","proxy_user_name":"u","proxy_pwd":"w",)",
      R"({"cmd":6,"param":[],)",
  };
  const unsigned which = Below(random, std::size(kRequests) + 2);
  std::string request;
  if (which < std::size(kRequests)) {
    request = kRequests[which] + (R"("sno":)" + std::to_string(kFirstDirect + ++m_direct) + "}");
  } else {
    request =
        which == std::size(kRequests) ? R"({"cmd":7})" : R"({"cmd":8,"param":{"localIP":"::1"}})";
    static NoReceiver& receiver = *new NoReceiver;
    if (Below(random, 2) == 0) CommonUtil::getInst().NetworkChange("::1", 3, &receiver);
  }
  if (CommonUtilProcessRecvMsg(request.data()) != 0) m_report.Find("not handled: " + request);
  Pause();
}

void Load::UseCacheOne(Random& random) { UseCache(random, "one/", m_knownOne); }
void Load::UseCacheTwo(Random& random) { UseCache(random, "two/", m_knownTwo); }

// Each thread knows what it has put under its own keys.
void Load::UseCache(Random& random, const std::string& prefix,
                    std::map<std::string, std::string>& known) {
  CommonUtilPrivateManager& cache = CommonUtilPrivateManager::getInst();
  const auto key = [&] { return prefix + std::to_string(Below(random, kKeys)); };
  const auto value = [&] {
    return std::string(20 + Below(random, 200), 'v') + std::to_string(random());
  };
  const ZelConfigCache row{0, key(), value()};
  switch (Below(random, 8)) {
    case 0:
      if (cache.DeleteConfigCacheByKey(row.key) != 0) m_report.Find("cannot delete " + row.key);
      known.erase(row.key);
      return;
    case 1: {
      std::vector<ZelConfigCache> rows{row, {0, key(), value()}, {0, key(), value()}};
      if (cache.BatchAddConfigCache(rows.data(), static_cast<int>(rows.size())) != 0) {
        m_report.Find("cannot add three rows");
      }
      for (const ZelConfigCache& added : rows) known[added.key] = added.value;
      return;
    }
    case 2:
      if (cache.SingleAddConfigCache(row) != 0) m_report.Find("cannot add " + row.key);
      known[row.key] = row.value;
      return;
    default: {
      std::string found;
      const bool isThere = cache.queryConfigInfoByKey(row.key, found);
      const auto expected = known.find(row.key);
      if (isThere != (expected != known.end()) || (isThere && found != expected->second)) {
        m_report.Find("another value than was put: " + row.key);
      }
    }
  }
}

void Load::MoveLogs(Random& random) {
  LogBusiness::SetLogPath(m_dir.Path() + (Below(random, 2) == 0 ? "/one/" : "/two/"),
                          LOGGER_LEVEL_INFO);
  LogBusiness::InitConfig(m_dir.Path() + "/one", 3 + Below(random, 3));
  LogBusiness::DoAsyncDelete(LogBusiness::kAfterConference);
  (void)LogBusiness::IsCleaning();
  (void)LogBusiness::DeletedFiles();
  (void)LogBusiness::GenerateLogPath("three");
  LogBusiness::DeleteOldVersionLogFiles((m_dir.Path() + "/two").c_str());
  (void)CommonUtil::getInst().SetLogPath(m_dir.Path() + "/log", LOGGER_LEVEL_INFO);
  Pause();
}

void Load::WatchAndTrack(Random& random) {
  CommonUtilFreeExportMsg(CommonUtilStatistics());
  (void)CommonUtilWaitExportMsg(Below(random, 3));
  (void)CommonUtilExportMsgFd();
  CommonUtilServiceSetEager(static_cast<int>(Below(random, 2)));
  (void)CommonUtil::getInst().GetGlobalErrorCode(static_cast<int>(Below(random, 500)));
  CommonUtil::getInst().SetDeviceGuid("guid");
  (void)CommonUtilPrivateManager::getInst().GetDeviceGuid();
  (void)CommonUtilPrivateManager::getInst().FilterWord("127.0.0.1", commonutil::FILTER_WORD_TYPE());
  commonutil::tagZelUtilSpecialParam event = {};
  std::snprintf(event.eventId, sizeof event.eventId, "storm");
  (void)CommonUtil::getInst().UTAddUserTrack(event);
  const commonutil::BuffMessageObject message(1, 2, "text", 4);
  const auto ignore = [](commonutil::MessageObject*, void*) { return 0; };
  (void)commonutil::CommonMessageQueue::getInst().postMsg(&message, ignore, nullptr, 0);
  (void)commonutil::CommonMessageQueue::getInst().sendMsg(nullptr, ignore, nullptr);
}

}  // namespace campaign
