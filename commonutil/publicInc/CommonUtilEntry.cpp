#include "publicInc/CommonUtilEntry.h"

#include "publicInc/ResultCode.h"
#include "publicInc/ServiceHost.h"
#include "util/Boundary.h"

using commonutil::AtBoundary;
using commonutil::ServiceHost;

namespace {

constexpr int kNothing = 0;  // refused, or none there: the stores count the other way round

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
    return service ? service->PrimaryStore().RecvMsgImport(message, length) : kNothing;
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

// Second entries of the same code.
extern "C" int RecvMsgImport(const char* message, unsigned long length)
    __attribute__((alias("CommonUtilRecvMsgImport")));
extern "C" int SendMsgExport(char** message) __attribute__((alias("CommonUtilSendMsgExport")));
extern "C" void FreeExportMsg(char* message) __attribute__((alias("CommonUtilFreeExportMsg")));
