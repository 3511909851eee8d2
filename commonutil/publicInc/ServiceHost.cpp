#include "publicInc/ServiceHost.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <new>
#include <thread>

#include "publicInc/ResultCode.h"
#include "util/Boundary.h"
#include "util/Log.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilService";
constexpr char kThreadName[] = "CommonUtilService";
constexpr unsigned int kIdlePollMs = 5;
// How soon one who waits for a message notices that the service has gone.
constexpr long long kLookForServiceMs = 100;

}  // namespace

ServiceHost& ServiceHost::GetInst() {
  static ServiceHost& instance = *new ServiceHost;
  return instance;
}

int ServiceHost::Startup() {
  MutexLock hold(m_threadLock);
  if (m_thread != 0) return kOk;
  if (!PinOrCreate()) {
    ZEL_LOG(kError) << "can't malloc memory.";
    return kFailed;
  }
  PRAX_THREAD thread = 0;
  const int result =
      PRAX_PthreadCreate(&thread, nullptr, &ServiceHost::ServiceMainProcess, nullptr);
  m_thread = thread;
  return result;
}

void ServiceHost::ShutDown() {
  m_stopFlag.store(1);
  MutexLock one(m_shutDownLock);
  PRAX_THREAD thread = 0;
  {
    MutexLock hold(m_threadLock);
    thread = m_thread;
  }
  if (thread == 0) return;
  // The handle stays until the join: a start-up in between would clear the stop flag.
  const int result = PRAX_PthreadJoin(thread, nullptr);
  if (result != 0) ZEL_LOG(kInfo) << "g_stServiceThread join error, ret = " << result;
  ZEL_LOG(kInfo) << "CommonUtilServiceShutDown exit";
  MutexLock hold(m_threadLock);
  m_thread = 0;
}

std::shared_ptr<CommonUtilService> ServiceHost::Pin() {
  MutexLock hold(m_serviceLock);
  return m_service;
}

std::shared_ptr<CommonUtilService> ServiceHost::PinOrCreate() {
  MutexLock hold(m_serviceLock);
  if (!m_service) {
    try {
      m_service.reset(new (std::nothrow) CommonUtilService);
      if (m_service) m_service->PrimaryStore().SetExportSignal(&m_signal);
    } catch (const std::bad_alloc&) {
      m_service.reset();
    }
  }
  return m_service;
}

void* ServiceHost::ServiceMainProcess(void*) {
  PRAX_PthreadSetName(kThreadName);
  GetInst().Serve();
  return nullptr;
}

void ServiceHost::Serve() {
  m_stopFlag.store(0);
  const std::shared_ptr<CommonUtilService> service = Pin();
  while (m_stopFlag.load() == 0) {
    char* message = nullptr;
    if (service->PrimaryStore().RecvMsgExport(&message) == 0) {
      Idle(service->PrimaryStore());
      continue;
    }
    // Stopped between the two looks: the object stays, and with it the messages that wait; the
    // next start goes on with them. This one is not handled.
    if (m_stopFlag.load() != 0) {
      m_unhandled = message;
      return;
    }
    AtBoundary([&] { service->ProcessRecvMsg(message); });  // a request too many for the memory
    service->PrimaryStore().ReleaseRequest(message);
  }
  DropService();
}

// An eager thread sleeps no longer than any other: what wakes it only brings the next look forward.
void ServiceHost::Idle(const msg_storage& store) {
  if (!m_eager.load()) {
    PRAX_SleepMs(kIdlePollMs);
    return;
  }
  // A host on this core may have more to import: one sleep for all of it, not one for each.
  std::this_thread::yield();
  if (!store.Inbound().IsEmpty()) return;
  MutexLock hold(m_sleepLock);
  m_asleep.store(true);
  if (store.Inbound().IsEmpty()) {
    std::unique_lock<std::mutex> native(m_sleepLock.native(), std::adopt_lock);
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kIdlePollMs);
    while (!m_woken && m_wake.wait_until(native, until) == std::cv_status::no_timeout) {
    }
    native.release();  // `hold` unlocks
  }
  m_asleep.store(false);
  m_woken = false;
}

void ServiceHost::WakeService() {
  if (!m_asleep.load()) return;
  MutexLock hold(m_sleepLock);
  m_woken = true;
  m_wake.notify_one();
}

bool ServiceHost::WaitForExport(unsigned int timeoutMs) {
  const std::shared_ptr<CommonUtilService> service = Pin();
  if (service == nullptr) return false;
  msg_storage& store = service->PrimaryStore();
  (void)m_signal.Descriptor();  // without one, the waits below are sleeps
  store.AwaitStore();
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    if (!store.Outbound().IsEmpty()) return true;
    const auto left = until - std::chrono::steady_clock::now();
    if (left <= left.zero() || Pin() != service) return false;
    // Rounded up, so that the last wait is no busy one.
    const auto leftMs = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    const auto slice = std::min<long long>(leftMs, kLookForServiceMs);
    // It may be up for a message that is gone.
    if (m_signal.Wait(static_cast<unsigned int>(slice))) store.LowerSignalWhenEmpty();
  }
}

int ServiceHost::ShowSignal() {
  const std::shared_ptr<CommonUtilService> service = Pin();
  if (service == nullptr) return -1;
  const int descriptor = m_signal.ShowDescriptor();
  service->PrimaryStore().AwaitStore();
  service->PrimaryStore().LowerSignalWhenEmpty();
  return descriptor;
}

void ServiceHost::DropService() {
  std::shared_ptr<CommonUtilService> last;  // destroyed outside the lock
  MutexLock hold(m_serviceLock);
  last.swap(m_service);
}

}  // namespace commonutil
