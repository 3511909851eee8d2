// One request through the library against what jsoncpp alone takes for its texts.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "Ratio.h"
#include "publicInc/CommonUtilEntry.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr int kRequests = 5000;
constexpr unsigned int kPatienceMs = 60000;
constexpr char kRequest[] =
    R"({"cmd":11,"sno":12345,"description":"a host's own text for this request, echoed",)"
    R"("param":{"first":"some text","second":[1,2,3],"third":true,"more":"text"}})";

void ProcessAndTake(std::string& request) {
  char* reply = nullptr;
  (void)CommonUtilProcessRecvMsg(request.data());
  if (CommonUtilSendMsgExport(&reply) == 1) CommonUtilFreeExportMsg(reply);
}

void ParseAndWrite(Json::CharReader& reader, const std::string& request, const Json::Value& reply) {
  Json::Value root;
  (void)reader.parse(request.data(), request.data() + request.size(), &root, nullptr);
  const std::string text = reply.toStyledString();
  if (text.empty()) std::abort();  // keeps the work
}

long ResidentKb() {
  long total = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

double CpuSeconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void ShowGrowth(std::string& request) {
  for (int i = 0; i < 10000; ++i) ProcessAndTake(request);
  const long before = ResidentKb();
  for (int i = 0; i < 1000000; ++i) ProcessAndTake(request);
  PrintFigure("growth over a million requests", std::to_string(ResidentKb() - before) + " KB");
}

void AskService() {
  char* reply = nullptr;
  (void)CommonUtilRecvMsgImport(kRequest, sizeof(kRequest) - 1);
  if (CommonUtilWaitExportMsg(kPatienceMs) != 1 || CommonUtilSendMsgExport(&reply) != 1) {
    std::abort();
  }
  CommonUtilFreeExportMsg(reply);
}

// The median time from the import of one request to its reply, in microseconds.
double MedianReplyUs(int eager, int requests) {
  using Clock = std::chrono::steady_clock;
  CommonUtilServiceSetEager(eager);
  AskService();
  std::vector<double> times;
  for (int i = 0; i < requests; ++i) {
    const Clock::time_point start = Clock::now();
    AskService();
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::nth_element(times.begin(), times.begin() + requests / 2, times.end());
  return times[static_cast<std::size_t>(requests / 2)];
}

void ShowReplyTimes() {
  (void)CommonUtilServiceStartup();
  PrintFigure("a reply, the service polling", std::to_string(MedianReplyUs(0, 300)) + " us");
  PrintFigure("a reply, the service eager (goal 100 us)",
              std::to_string(MedianReplyUs(1, 3000)) + " us");
  CommonUtilServiceSetEager(0);
  CommonUtilServiceShutDown();
}

void ShowIdle() {
  constexpr int kSeconds = 3;
  (void)CommonUtilServiceStartup();
  AskService();
  const double before = CpuSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
  const double used = (CpuSeconds() - before) / kSeconds;
  CommonUtilServiceShutDown();
  PrintFigure("idle service, CPU time a second", std::to_string(used * 1000) + " ms");
}

}  // namespace

void BenchMessage() {
  std::string request = kRequest;
  Json::Value reply(Json::objectValue);
  reply["description"] = "a host's own text for this request, echoed";
  reply["result"] = 0;
  reply["rsp"] = 11U;
  reply["sno"] = 12345U;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  const Comparison comparison = {"one request, command 11, 150 bytes",
                                 "jsoncpp: parse with a kept reader + toStyledString", 1.5, kRounds,
                                 kRequests};
  Compare(
      comparison,
      [&] {
        for (int i = 0; i < kRequests; ++i) ProcessAndTake(request);
      },
      [&] {
        for (int i = 0; i < kRequests; ++i) ParseAndWrite(*reader, request, reply);
      });
  ShowGrowth(request);
  ShowReplyTimes();
  ShowIdle();
}

}  // namespace bench
