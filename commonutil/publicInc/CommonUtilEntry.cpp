#include "publicInc/CommonUtilEntry.h"

#include <cstring>
#include <string>

#include "publicInc/ResultCode.h"
#include "publicInc/ServiceHost.h"
#include "publicInc/StatisticsText.h"
#include "util/Boundary.h"

using commonutil::AtBoundary;
using commonutil::ServiceHost;

namespace {

// The stores count the other way round.
constexpr int kNothing = 0;  // refused, or none there
constexpr int kSomething = 1;
constexpr int kNoDescriptor = -1;

int ProcessOnThisThread(char* message) {
  if (message == nullptr) return commonutil::kFailed;
  const auto service = ServiceHost::GetInst().PinOrCreate();
  return service ? service->ProcessRecvMsg(message) : commonutil::kFailed;
}

}  // namespace

extern "C" int CommonUtilServiceStartup(void) {
  return AtBoundary(commonutil::kFailed, [] { return ServiceHost::GetInst().Startup(); });
}

extern "C" int ServiceStartup(void) { return CommonUtilServiceStartup(); }

extern "C" void CommonUtilServiceShutDown(void) {
  AtBoundary([] { ServiceHost::GetInst().ShutDown(); });
}

extern "C" void ServiceShutDown(void) { CommonUtilServiceShutDown(); }

extern "C" int CommonUtilRecvMsgImport(const char* message, unsigned long length) {
  return AtBoundary(kNothing, [&] {
    const auto service = ServiceHost::GetInst().Pin();
    if (!service) return kNothing;
    const int stored = service->PrimaryStore().RecvMsgImport(message, length);
    ServiceHost::GetInst().WakeService();
    return stored;
  });
}

extern "C" int CommonUtilSendMsgExport(char** message) {
  return AtBoundary(kNothing, [&] {
    const auto service = ServiceHost::GetInst().Pin();
    return service ? service->PrimaryStore().SendMsgExport(message) : kNothing;
  });
}

extern "C" void CommonUtilFreeExportMsg(char* message) { delete[] message; }

extern "C" int CommonUtilProcessRecvMsg(char* message) {
  return AtBoundary(commonutil::kFailed, [&] { return ProcessOnThisThread(message); });
}

extern "C" int ProcessRecvMsg(char* message) {
  return AtBoundary(commonutil::kFailed, [&] { return ProcessOnThisThread(message); });
}

extern "C" int CommonUtilWaitExportMsg(unsigned int timeoutMs) {
  return AtBoundary(kNothing, [timeoutMs] {
    return ServiceHost::GetInst().WaitForExport(timeoutMs) ? kSomething : kNothing;
  });
}

extern "C" int CommonUtilExportMsgFd(void) {
  return AtBoundary(kNoDescriptor, [] { return ServiceHost::GetInst().ShowSignal(); });
}

extern "C" void CommonUtilServiceSetEager(int eager) {
  AtBoundary([eager] { ServiceHost::GetInst().SetEager(eager != 0); });
}

extern "C" const char* CommonUtilVersion(void) { return ZEL_BUILD_VERSION; }

extern "C" char* CommonUtilStatistics(void) {
  return AtBoundary<>(static_cast<char*>(nullptr), [] {
    const std::string text = commonutil::StatisticsText();
    char* const copy = new char[text.size() + 1];
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
  });
}

// Second entries of the same code.
extern "C" int RecvMsgImport(const char* message, unsigned long length)
    __attribute__((alias("CommonUtilRecvMsgImport")));
extern "C" int SendMsgExport(char** message) __attribute__((alias("CommonUtilSendMsgExport")));
extern "C" void FreeExportMsg(char* message) __attribute__((alias("CommonUtilFreeExportMsg")));
