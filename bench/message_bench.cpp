// Requests through the library against what jsoncpp alone takes to read them and to build and write
// their replies, with a reader and a writer that are kept.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>
#include <readerwriterqueue/readerwriterqueue.h>

#include "Ratio.h"
#include "Resident.h"
#include "publicInc/CommonUtilEntry.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr int kRequests = 5000;
constexpr int kPipelined = 100000;
constexpr int kPipelineRounds = 7;
constexpr int kUnderWay = 2000;  // fewer than a ring holds
constexpr int kBurst = 64;
constexpr unsigned int kPatienceMs = 60000;
constexpr char kRequest[] =
    R"({"cmd":11,"sno":12345,"description":"a host's own text for this request, echoed",)"
    R"("param":{"first":"some text","second":[1,2,3],"third":true,"more":"text"}})";

void ProcessAndTake(std::string& request) {
  char* reply = nullptr;
  (void)CommonUtilProcessRecvMsg(request.data());
  if (CommonUtilSendMsgExport(&reply) == 1) CommonUtilFreeExportMsg(reply);
}

// What no library can do without: the request is parsed, the reply built and written.
class BareService {
 public:
  std::string Answer(const char* request, std::size_t length) {
    Json::Value root;
    if (!m_reader->parse(request, request + length, &root, nullptr)) std::abort();
    Json::Value reply(Json::objectValue);
    reply["description"] = root["description"];
    reply["result"] = 0;
    reply["rsp"] = root["cmd"];
    reply["sno"] = root["sno"];
    m_stream.str("");
    m_writer->write(reply, &m_stream);
    m_stream << '\n';
    return m_stream.str();
  }

 private:
  const std::unique_ptr<Json::CharReader> m_reader{Json::CharReaderBuilder().newCharReader()};
  const std::unique_ptr<Json::StreamWriter> m_writer{Json::StreamWriterBuilder().newStreamWriter()};
  std::ostringstream m_stream;
};

// A request with its number, which its reply brings back.
std::string Numbered(int number) {
  return R"({"cmd":11,"sno":)" + std::to_string(number) +
         R"(,"description":"a host's own text for this request, echoed",)"
         R"("param":{"first":"some text","second":[1,2,3],"third":true,"more":"text"}})";
}

// Ends the program unless the reply is that to the request `number`.
void Check(const char* reply, int number) {
  const char* const sno = std::strstr(reply, "\"sno\" : ");
  if (sno == nullptr || std::atoi(sno + 8) != number) std::abort();
}

// One host thread sends all requests and takes all replies: as many are under way as the rings
// hold. Each reply is checked, so that none is lost and none overtakes another.
void ThroughRings(const std::vector<std::string>& requests) {
  const int all = static_cast<int>(requests.size());
  int sent = 0;
  for (int received = 0; received < all;) {
    while (sent < all && sent - received < kUnderWay) {
      const std::string& request = requests[static_cast<std::size_t>(sent)];
      if (CommonUtilRecvMsgImport(request.data(), request.size()) == 0) break;
      ++sent;
      if (sent % kBurst == 0) break;
    }
    const int before = received;
    char* reply = nullptr;
    while (CommonUtilSendMsgExport(&reply) == 1) {
      Check(reply, received++);
      CommonUtilFreeExportMsg(reply);
    }
    if (received == before) std::this_thread::yield();
  }
}

// The same work without the library: a thread that answers, and queues of pointers. Made anew for
// each round, because its thread never sleeps.
class BarePipeline {
 public:
  explicit BarePipeline(int core) : m_thread([this, core] { Run(core); }) {}
  ~BarePipeline() {
    while (!m_requests.try_enqueue(nullptr)) std::this_thread::yield();
    m_thread.join();
  }

  void Through(const std::vector<std::string>& requests) {
    const int all = static_cast<int>(requests.size());
    int sent = 0;
    for (int received = 0; received < all;) {
      while (sent < all && sent - received < kUnderWay) {
        m_requests.enqueue(new std::string(requests[static_cast<std::size_t>(sent)]));
        ++sent;
        if (sent % kBurst == 0) break;
      }
      const int before = received;
      std::string* taken = nullptr;
      while (m_replies.try_dequeue(taken)) {
        const std::unique_ptr<std::string> reply(taken);
        Check(reply->c_str(), received++);
      }
      if (received == before) std::this_thread::yield();
    }
  }

 private:
  void Run(int core) {
    const Pinned here(core);
    BareService service;
    for (;;) {
      std::string* taken = nullptr;
      if (!m_requests.try_dequeue(taken)) {
        std::this_thread::yield();
        continue;
      }
      const std::unique_ptr<std::string> request(taken);
      if (!request) return;
      m_replies.enqueue(new std::string(service.Answer(request->data(), request->size())));
    }
  }

  moodycamel::ReaderWriterQueue<std::string*> m_requests{2048};
  moodycamel::ReaderWriterQueue<std::string*> m_replies{2048};
  std::thread m_thread;  // last: it uses the others
};

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
  PrintFigure("growth over a million requests", static_cast<double>(ResidentKb() - before), "KB");
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
  PrintFigure("a reply, the service polling", MedianReplyUs(0, 300), "us");
  PrintFigure("a reply, the service eager (goal 100 us)", MedianReplyUs(1, 3000), "us");
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
  PrintFigure("idle service, CPU time a second", used * 1000, "ms");
}

void CompareOneRequest(const char* what, double goal) {
  std::string request = kRequest;
  BareService bare;
  Compare(
      {what, "jsoncpp: parse, build, write; reader and writer kept", goal, kRounds, kRequests},
      [&] {
        for (int i = 0; i < kRequests; ++i) ProcessAndTake(request);
      },
      [&] {
        for (int i = 0; i < kRequests; ++i) {
          if (bare.Answer(request.data(), request.size()).empty()) std::abort();
        }
      });
}

void ComparePipelines(const char* what, int serviceCore, const std::vector<std::string>& requests) {
  {
    const Pinned there(serviceCore);  // the service's thread takes it from here
    (void)CommonUtilServiceStartup();
    AskService();
  }
  CommonUtilServiceSetEager(1);  // else each time that it finds no request costs it 5 ms
  const Pinned here(0);
  std::vector<double> rates;
  Compare(
      {what, "the same work of jsoncpp behind lock-free queues", 1.3, kPipelineRounds, kPipelined},
      [&] {
        const auto start = std::chrono::steady_clock::now();
        ThroughRings(requests);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        rates.push_back(kPipelined / took.count());
      },
      [&] { BarePipeline(serviceCore).Through(requests); });
  CommonUtilServiceSetEager(0);
  CommonUtilServiceShutDown();
  std::nth_element(rates.begin(), rates.begin() + kPipelineRounds / 2, rates.end());
  PrintFigure(std::string(what) + ", a second (goal 300000)",
              std::floor(rates[kPipelineRounds / 2]));
}

// As a host that logs warnings and errors: no line is written for a request.
void CompareQuiet() {
  const QuietLog quiet;
  CompareOneRequest("one request, command 11, 150 bytes", 1.3);
  std::vector<std::string> requests;
  for (int i = 0; i < kPipelined; ++i) requests.push_back(Numbered(i));
  if (std::thread::hardware_concurrency() > 1) {
    ComparePipelines("pipelined requests, a core each", 1, requests);
  }
  ComparePipelines("pipelined requests, one core", 0, requests);
}

}  // namespace

void BenchMessage() {
  CompareQuiet();
  CompareOneRequest("one request, and its log line kept", 0);
  std::string request = kRequest;
  ShowGrowth(request);
  ShowReplyTimes();
  ShowIdle();
}

}  // namespace bench
