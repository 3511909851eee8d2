// Bad days of the machine: under a running library, and at its start. Whatever happens, nothing
// hangs, every call answers, the next good day works, and what was acknowledged is still there.
// Each life of the library is a child of its own.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "CommonUtil.h"
#include "Report.h"
#include "cacheDB/CommonUtilDBInterface.h"
#include "prax/prax_ref.h"
#include "publicInc/CommonUtilEntry.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "publicInc/ResultCode.h"
#include "support/TempDir.h"
#include "util/LogBusiness.h"

namespace {

std::atomic<long long> clockOffsetSeconds{0};

}  // namespace

// In the place of the C library's, so that years can pass without touching the machine's clock.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const auto result = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
  if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += clockOffsetSeconds.load();
  return result;
}

namespace {

namespace fs = std::filesystem;
using commonutil::CommonUtil;
using commonutil::kPushNoMemory;
using commonutil::SqliteInterfaceManager;
using commonutil::ZelConfigCache;

constexpr uid_t kNobody = 65534;
constexpr unsigned kLifeSeconds = 60;
constexpr int kMaxRows = 4096;
constexpr int kRowsAtOnce = 20;
constexpr long long kTenYears = 10LL * 365 * 86400;
constexpr std::size_t kValueBytes = 4000;

// What a life leaves behind even if it is killed.
struct Record {
  std::atomic<int> rows;             // tried so far
  std::atomic<char> kept[kMaxRows];  // acknowledged
  std::atomic<int> keptInBadTimes, startInBadTimes;
  std::atomic<int> failures;
  char failure[512];
};

std::string KeyOf(int row) { return "row" + std::to_string(row); }

std::string ValueOf(int row) {
  return std::string(kValueBytes, static_cast<char>('a' + row % 26)) + std::to_string(row);
}

// The library in one process.
class Life {
 public:
  Life(std::string dir, Record& memory) : m_dir(std::move(dir)), m_memory(memory) {}

  const std::string& Dir() const { return m_dir; }
  Record& Seen() { return m_memory; }

  void Check(bool holds, const char* promise) {
    if (holds || m_memory.failures++ != 0) return;
    std::snprintf(m_memory.failure, sizeof m_memory.failure, "%s", promise);
  }

  int Initialise() {
    commonutil::tagZelUtilInitParam param = {};
    std::snprintf(param.dbPath, sizeof param.dbPath, "%s", m_dir.c_str());
    std::snprintf(param.logPath, sizeof param.logPath, "%s/log/", m_dir.c_str());
    param.logLevel = 2;
    param.logSize = 64;
    param.fileCount = 2;
    PRAX_Ref_SetSleepHook([](unsigned) {});  // key management is tried a hundred times
    const int result = CommonUtil::getInst().InitCommonUtil(param, nullptr);
    PRAX_Ref_SetSleepHook({});
    return result;
  }

  // Rows that the database has acknowledged.
  int Add(int count) {
    int kept = 0;
    for (int i = 0; i < count && m_memory.rows < kMaxRows; ++i) {
      const int row = m_memory.rows++;
      const ZelConfigCache entry{0, KeyOf(row), ValueOf(row)};
      const bool isKept = SqliteInterfaceManager::GetInst().BatchAddConfigCache(&entry, 1) == 0;
      m_memory.kept[row] = isKept;
      kept += isKept ? 1 : 0;
    }
    return kept;
  }

  void CheckRows(const char* promise) {
    for (int row = 0; row < m_memory.rows; ++row) {
      if (m_memory.kept[row] != 0) Check(Value(row) == ValueOf(row), promise);
    }
  }

  // Everything else that a client does, whatever comes of it.
  void UseAll() {
    for (int row = 0; row < m_memory.rows; row += 7) {
      const std::string value = Value(row);
      Check(value.empty() || value == ValueOf(row), "a value that was read is whole");
    }
    commonutil::tagZelUtilSpecialParam event = {};
    std::snprintf(event.eventId, sizeof event.eventId, "bad");
    for (int i = 0; i < kRowsAtOnce; ++i) (void)CommonUtil::getInst().UTAddUserTrack(event);
    (void)CommonUtil::getInst().UTUploadData();
    commonutil::LogBusiness::SetLogPath(m_dir + "/log/sub", LOGGER_LEVEL_INFO);
    commonutil::LogBusiness::InitConfig(m_dir + "/log", 3);
    commonutil::LogBusiness::DoAsyncDelete(commonutil::LogBusiness::kAfterLogin);
    (void)CommonUtil::getInst().NetDetect(0, nullptr);
    Check(Answers(), "a request is answered");
  }

  bool Answers() {
    std::string request = R"({"cmd":11,"sno":1})";
    if (CommonUtilProcessRecvMsg(request.data()) != 0) return false;
    char* message = nullptr;
    if (CommonUtilSendMsgExport(&message) != 1) return false;
    CommonUtilFreeExportMsg(message);
    return true;
  }

  // The service's own thread.
  bool Serves() {
    if (CommonUtilServiceStartup() != 0) return false;
    const std::string request = R"({"cmd":11,"sno":1})";
    char* message = nullptr;
    if (CommonUtilRecvMsgImport(request.data(), request.size()) != 1 ||
        CommonUtilWaitExportMsg(10000) != 1 || CommonUtilSendMsgExport(&message) != 1) {
      return false;
    }
    CommonUtilFreeExportMsg(message);
    CommonUtilServiceShutDown();
    return true;
  }

 private:
  std::string Value(int row) {
    ZelConfigCache found;
    int count = 1;
    const commonutil::ZelMatchInfo match{KeyOf(row), commonutil::kMatchKey};
    const int result = SqliteInterfaceManager::GetInst().QueryConfigCache(match, &found, &count);
    return result == 0 && count == 1 ? found.value : std::string();
  }

  const std::string m_dir;
  Record& m_memory;
};

struct Day {
  const char* name;
  std::function<void(Life&)> begin, end;
  bool rowsSurvive = true;     // false: the bad day removes them
  bool startSucceeds = false;  // a start on this day must work too
};

void DropRoot() {
  if (::geteuid() == 0 && ::setresuid(kNobody, kNobody, kNobody) != 0) ::_exit(99);
  // Else the process's files belong to root, and its own descriptors cannot be looked at.
  (void)::prctl(PR_SET_DUMPABLE, 1);
}

void FillDisk(Life& life) {
  const int filler = ::open((life.Dir() + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const std::string block(65536, 'x');
  for (std::size_t size = block.size(); size > 0;) {
    if (::write(filler, block.data(), size) <= 0) size /= 2;
  }
  (void)::close(filler);
}

std::vector<int>& Taken() {
  static std::vector<int>& taken = *new std::vector<int>;
  return taken;
}

void TakeDescriptors(Life&) {
  const rlimit limit{64, 64};
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
  Taken().reserve(64);
  for (int fd = 0; (fd = ::dup(2)) >= 0;) Taken().push_back(fd);
}

void ReturnDescriptors(Life&) {
  for (const int fd : Taken()) (void)::close(fd);
  Taken().clear();
}

void LimitThreads(rlim_t threads) {
  rlimit limit = {};
  (void)::getrlimit(RLIMIT_NPROC, &limit);
  limit.rlim_cur = threads;
  (void)::setrlimit(RLIMIT_NPROC, &limit);
}

void SetModeOfTree(const std::string& dir, mode_t mode) {
  for (const char* part : {"", "/log", "/zorm", "/track"}) {
    (void)::chmod((dir + part).c_str(), mode);
  }
}

std::vector<Day> Days() {
  const auto nothing = [](Life&) {};
  const auto shift = [](long long by) { return [by](Life&) { clockOffsetSeconds += by; }; };
  return {
      {"full disk", FillDisk, [](Life& life) { fs::remove(life.Dir() + "/filler"); }},
      {"read-only directory", [](Life& life) { SetModeOfTree(life.Dir(), 0555); },
       [](Life& life) { SetModeOfTree(life.Dir(), 0755); }},
      {"64 open files", TakeDescriptors, ReturnDescriptors},
      {"no threads left", [](Life&) { LimitThreads(0); }, [](Life&) { LimitThreads(4096); }},
      {"clock forward", shift(kTenYears), shift(-kTenYears), true, true},
      {"clock back", shift(-kTenYears), shift(kTenYears), true, true},
      {"umask 0777", [](Life&) { (void)::umask(0777); }, [](Life&) { (void)::umask(022); }},
      {"directory removed",
       [](Life& life) {
         for (const auto& entry : fs::directory_iterator(life.Dir())) fs::remove_all(entry.path());
       },
       nothing, false},
  };
}

class BadDays {
 public:
  explicit BadDays(campaign::Report& report) : m_report(report) {
    void* const shared =
        ::mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    m_memory = new (shared) Record;
  }
  BadDays(const BadDays&) = delete;
  BadDays& operator=(const BadDays&) = delete;
  ~BadDays() { (void)::munmap(m_memory, sizeof(Record)); }

  void Run(const Day& day) {
    const support::TempDir dir;
    if (!Prepare(day, dir.Path())) return;
    const std::string data = dir.File("data");
    const int before = m_findings;
    ExpectBadStart(day, "at the first start", data);
    ExpectGoodDay(day, data);
    Expect(day, "while running", data, [&day](Life& life) {
      life.Check(life.Initialise() == 0, "a start on a good day works");
      life.Check(life.Add(1) == 1, "rows are kept on a good day");
      day.begin(life);
      life.Seen().keptInBadTimes = life.Add(kRowsAtOnce);
      life.UseAll();
      day.end(life);
      if (day.rowsSurvive) {
        life.Check(life.Add(1) == 1, "rows are kept again once the bad day is over");
        life.CheckRows("the running library has what it acknowledged");
      }
      life.Check(life.Answers() && life.Serves(), "the service works after the bad day");
    });
    ExpectGoodDay(day, data);
    ExpectBadStart(day, "at the start", data);
    ExpectGoodDay(day, data);
    (void)::umount(data.c_str());  // where it was one
    std::printf("%-20s %-8s %2d of %d rows kept meanwhile, a start returns %d\n", day.name,
                m_findings == before ? "ok" : "FAILED", m_memory->keptInBadTimes.load(),
                kRowsAtOnce, m_memory->startInBadTimes.load());
    ++m_rounds;
  }

  // Both are started at once, and add rows at once.
  void RunTwoProcesses() {
    const Day day{"two processes", {}, {}};
    const support::TempDir dir;
    const std::string data = dir.File("data");
    const int before = m_findings;
    if (!Prepare(day, dir.Path())) return;
    for (int round = 0; round < 3; ++round) {
      const auto life = [](Life& one) {
        const int result = one.Initialise();
        one.Check(result == 0 || result == 1, "a start beside another process works or fails");
        if (result == 0) (void)one.Add(kRowsAtOnce);
        one.Check(one.Serves(), "the service works beside another process");
      };
      const pid_t first = Start(data, life);
      const pid_t second = Start(data, life);
      Judge(day, "first of two", Await(first));
      Judge(day, "second of two", Await(second));
      ExpectGoodDay(day, data);
    }
    std::printf("%-20s %s\n", day.name, m_findings == before ? "ok" : "FAILED");
    ++m_rounds;
  }

  int Rounds() const { return m_rounds; }

 private:
  // A fresh data directory that nobody owns; false where this machine cannot have such a day.
  bool Prepare(const Day& day, const std::string& dir) {
    new (m_memory) Record();
    const std::string data = dir + "/data";
    fs::create_directory(data);
    (void)::chmod(dir.c_str(), 0755);
    if (std::strcmp(day.name, "full disk") == 0 &&
        (::unshare(CLONE_NEWNS) != 0 ||
         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, "") != 0 ||
         ::mount("tmpfs", data.c_str(), "tmpfs", 0, "size=2m") != 0)) {
      std::printf("%-20s skipped: a small tmpfs needs root\n", day.name);
      return false;
    }
    fs::create_directory(data + "/log");
    if (::geteuid() != 0) return true;
    return ::chown(data.c_str(), kNobody, kNobody) == 0 &&
           ::chown((data + "/log").c_str(), kNobody, kNobody) == 0;
  }

  pid_t Start(const std::string& data, const std::function<void(Life&)>& body) {
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child != 0) return child;
    (void)::alarm(kLifeSeconds);
    DropRoot();
    Life life(data, *m_memory);
    body(life);
    ::_exit(0);
  }

  static int Await(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
  }

  void Judge(const Day& day, const char* what, int status) {
    std::string story = std::string(day.name) + ", " + what + ": ";
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
      story += "hangs";
    } else if (status != 0) {
      story += "ends with the status " + std::to_string(status);
    } else if (m_memory->failures != 0) {
      story += std::string("not so: ") + m_memory->failure;
    } else {
      return;
    }
    m_memory->failures = 0;
    ++m_findings;
    m_report.Find(story);
  }

  void Expect(const Day& day, const char* what, const std::string& data,
              const std::function<void(Life&)>& body) {
    Judge(day, what, Await(Start(data, body)));
  }

  void ExpectBadStart(const Day& day, const char* what, const std::string& data) {
    Expect(day, what, data, [&day](Life& life) {
      day.begin(life);
      const int result = life.Initialise();
      life.Seen().startInBadTimes = result;
      life.Check(result == 0 || (!day.startSucceeds && (result == 1 || result == kPushNoMemory)),
                 "a start on a bad day works, or is refused");
      if (result == 0) (void)life.Add(1);
      life.UseAll();
      day.end(life);
      life.Check(result != kPushNoMemory || life.Initialise() == 0, "a worker is started later");
      life.Check(life.Answers() && life.Serves(), "the service works after the bad day");
    });
  }

  void ExpectGoodDay(const Day& day, const std::string& data) {
    Expect(day, "next start", data, [&day](Life& life) {
      life.Check(life.Initialise() == 0, "the next start works");
      if (day.rowsSurvive) life.CheckRows("what was acknowledged is there");
      life.Check(life.Add(1) == 1, "rows are kept on a good day");
      life.Check(life.Serves(), "the service works");
    });
    for (const auto& entry : fs::recursive_directory_iterator(data)) {
      const std::string name = entry.path().filename().string();
      if (name.find(".tmp") == std::string::npos) continue;
      ++m_findings;
      m_report.Find(std::string(day.name) + ": leaves the temporary file " + name);
    }
  }

  campaign::Report& m_report;
  Record* m_memory;
  int m_findings = 0;
  int m_rounds = 0;
};

}  // namespace

int main(int argc, char** argv) {
  campaign::Report report("baddays", 0, argc, argv);
  BadDays days(report);
  for (const Day& day : Days()) days.Run(day);
  days.RunTwoProcesses();
  return report.End(days.Rounds());
}
