// The host that is cut off: campaign_cutoff_host work|check DIRECTORY SEED ROUNDS. It tells on
// standard output, a line each, what it is about to do (M, with the value that a key may then
// have) and what is done for good (A a row, D a deleted one, E an event), what it found in the
// database (R), how the initialisation and the end went (I, X), what a door threw (T), and
// the calls that came from new places (N).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <random>
#include <string>
#include <vector>

#include "zel_platform/logger.h"
#include "zel_platform/prax.h"
#include "zel_utils/CommonUtil.h"
#include "zel_utils/cacheDB/CommonUtilDBInterface.h"
#include "zel_utils/publicInc/CommonUtilEntry.h"
#include "zel_utils/publicInc/CommonUtilPrivateManager.h"
#include "zel_utils/publicInc/ResultCode.h"
#include "zel_utils/util/LogBusiness.h"

extern "C" {
__attribute__((weak)) void zel_faults_arm(int armed);
__attribute__((weak)) int zel_faults_fired();
__attribute__((weak)) long zel_faults_place(std::size_t index);
}

namespace {

using commonutil::CommonUtil;
using commonutil::CommonUtilPrivateManager;
using commonutil::LogBusiness;
using commonutil::ZelConfigCache;

constexpr unsigned int kKeys = 16;
constexpr int kBatch = 5;
constexpr int kLogLines = 12;  // a KB and more, at which the file is rotated

__attribute__((format(printf, 1, 2))) void Tell(const char* format, ...) {
  char line[128];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  if (write(STDOUT_FILENO, line, static_cast<std::size_t>(length)) != length) _exit(3);
}

bool Fired() { return zel_faults_fired != nullptr && zel_faults_fired() != 0; }
void Arm(int armed) {
  if (zel_faults_arm != nullptr) zel_faults_arm(armed);
}

// Runs one operation; a door that throws has refused it, and is told of.
template <class F>
void Try(const char* what, F&& operation) {
  try {
    operation();
  } catch (const std::exception& e) {
    Tell("T %s: %s\n", what, e.what());
  }
}

std::string KeyOf(unsigned int key) { return "key" + std::to_string(key); }

// Long enough for pages of its own now and then, and wrong when any part of it is missing.
std::string ValueOf(long number) {
  std::string value = std::to_string(number);
  const std::size_t length = number % 7 == 0 ? 6000 : 100;
  while (value.size() < length) value += "." + std::to_string(number);
  return value;
}

// The number of the value that the database holds; -1: none, -2: not one that was stored,
// -3: it cannot tell, as when a fault has made the query miss its row.
long Stored(unsigned int key) {
  ZelConfigCache row;
  int count = 1;
  const int result = UTCallBackQueryConfigCache(KeyOf(key).c_str(), &row, &count);
  if (result == commonutil::kQueryNoEntry) return Fired() ? -3 : -1;
  if (result != 0 || count != 1) return -3;
  const long number = std::atol(row.value.c_str());
  return row.value == ValueOf(number) ? number : -2;
}

class Host {
 public:
  Host(std::string directory, unsigned int seed)
      : m_directory(std::move(directory)), m_random(seed), m_number(seed * 10000L) {}

  bool Start() {
    int result = -1;
    Try("init", [&] {
      commonutil::tagZelUtilInitParam param = {};
      std::snprintf(param.dbPath, sizeof(param.dbPath), "%s", m_directory.c_str());
      std::snprintf(param.logPath, sizeof(param.logPath), "%s/log", m_directory.c_str());
      param.logLevel = 2;
      param.logSize = 16;
      param.fileCount = 40;
      result = CommonUtil::getInst().InitCommonUtil(param, nullptr);
    });
    Tell("I %d\n", result);
    m_started = result == 0;
    return m_started;
  }

  void TellRows() {
    for (unsigned int key = 0; key < kKeys; ++key) {
      Try("query", [&] { Tell("R %u %ld\n", key, Stored(key)); });
    }
    Tell("C\n");
  }

  // A write, upon which SQLite puts the journal of one that was cut off away.
  void Touch() {
    const std::string key = "touched";
    (void)CommonUtilPrivateManager::getInst().SingleAddConfigCache({0, key, "once"});
    (void)CommonUtilPrivateManager::getInst().DeleteConfigCacheByKey(key);
  }

  void Work() {
    Try("add", [&] { AddSingly(); });
    Try("event", [&] { AddEvent(); });
    Try("batch", [&] { AddBatch(); });
    Try("delete", [&] { Delete(); });
    Try("query", [&] { Query(); });
    Try("log", [&] { Log(); });
    Try("event", [&] { AddEvent(); });
    Try("cleanup", [&] { CleanUp(); });
  }

  void Serve() {
    if (CommonUtilServiceStartup() != 0) return;
    char request[] = R"({"cmd":11,"sno":1,"param":{}})";
    (void)CommonUtilProcessRecvMsg(request);
    (void)CommonUtilRecvMsgImport(request, sizeof(request) - 1);
    (void)CommonUtilWaitExportMsg(1000);
    char* reply = nullptr;
    while (CommonUtilSendMsgExport(&reply) == 1) CommonUtilFreeExportMsg(reply);
  }

  void End() {
    int result = -1;
    Try("upload", [] { (void)CommonUtil::getInst().UTUploadData(); });
    Try("end", [&] { result = CommonUtil::getInst().UninitCommonUtil(); });
    Tell("X %d\n", result);
  }

 private:
  unsigned int NextKey() { return static_cast<unsigned int>(m_random() % kKeys); }

  // What the database shows after the worker has got round to it is there for good.
  void Confirm(unsigned int key, long number) {
    if (Stored(key) == number) Tell("A %u %ld\n", key, number);
  }

  void WaitForWorker() {
    (void)CommonUtilPrivateManager::getInst().DeleteConfigCacheByKey("no such key");
  }

  void AddSingly() {
    const unsigned int key = NextKey();
    const long number = ++m_number;
    Tell("M %u %ld\n", key, number);
    (void)CommonUtilPrivateManager::getInst().SingleAddConfigCache(
        {0, KeyOf(key), ValueOf(number)});
    WaitForWorker();
    Confirm(key, number);
  }

  void AddBatch() {
    std::vector<ZelConfigCache> rows;
    const unsigned int first = NextKey();
    const long number = m_number + 1;
    m_number += kBatch;
    for (int i = 0; i < kBatch; ++i) {
      const unsigned int key = (first + i) % kKeys;
      rows.push_back({0, KeyOf(key), ValueOf(number + i)});
      Tell("M %u %ld\n", key, number + i);
    }
    (void)CommonUtilPrivateManager::getInst().BatchAddConfigCache(rows.data(), kBatch);
    for (int i = 0; i < kBatch; ++i) Confirm((first + i) % kKeys, number + i);
  }

  void Delete() {
    const unsigned int key = NextKey();
    Tell("M %u -1\n", key);
    const std::string name = KeyOf(key);
    if (CommonUtilPrivateManager::getInst().DeleteConfigCacheByKey(name) != 0) return;
    if (Stored(key) == -1) Tell("A %u -1\n", key);
  }

  void Query() {
    ZelConfigCache row;
    int count = 1;
    (void)CommonUtilPrivateManager::getInst().QueryConfigCacheByKey(KeyOf(NextKey()), &row, &count);
  }

  void AddEvent() {
    commonutil::tagZelUtilSpecialParam event = {};
    std::strcpy(event.eventId, "77");
    const long number = ++m_number;
    std::snprintf(event.arg1, sizeof(event.arg1), "cutoff%ld.", number);
    // Before a start that succeeded events wait in memory only.
    if (CommonUtil::getInst().UTAddUserTrack(event) == 0 && m_started) Tell("E %ld\n", number);
  }

  void Log() {
    if (!m_logOpen) {
      m_logOpen = LogStream::InitLog("rotated", (m_directory + "/log/rotated.txt").c_str(), 1, 2,
                                     LOGGER_LEVEL_INFO) == 0;
    }
    for (int i = 0; i < kLogLines; ++i) {
      LogStream::GetLogStream("rotated", LOGGER_LEVEL_INFO, LOGGER_LEVEL_INFO, "campaign/host",
                              "Log", i)
          << "a line among many, so that the file is full soon: " << i;
    }
  }

  void MakeFile(const std::string& path, std::time_t written) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
    const timespec times[2] = {{written, 0}, {written, 0}};
    if (file < 0) return;
    (void)futimens(file, times);
    close(file);
  }

  void CleanUp() {
    Arm(0);
    const std::string directory = m_directory + "/clean";
    (void)mkdir(directory.c_str(), 0750);
    for (int i = 0; i < 3; ++i) {
      MakeFile(directory + "/old" + std::to_string(i), std::time(nullptr) - 10 * 86400);
    }
    Arm(1);
    LogBusiness::InitConfig(directory, 3);
    LogBusiness::DoAsyncDelete(LogBusiness::kAfterLogin);
    while (LogBusiness::IsCleaning()) PRAX_SleepMs(1);
  }

  const std::string m_directory;
  std::minstd_rand m_random;
  long m_number;
  bool m_started = false;
  bool m_logOpen = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  Host host(argv[2], static_cast<unsigned int>(std::atoi(argv[3])));
  const bool working = std::strcmp(argv[1], "work") == 0;
  Arm(1);
  const bool started = host.Start();
  if (started) host.TellRows();
  if (working) {
    for (int i = 0; i < std::atoi(argv[4]); ++i) host.Work();
    host.Serve();
  } else {
    host.Touch();
  }
  host.End();
  Arm(0);
  if (zel_faults_place == nullptr) return 0;
  long call = 0;
  for (std::size_t i = 0; (call = zel_faults_place(i)) != 0; ++i) Tell("N %ld\n", call);
  return 0;
}
