// The one service object of the process and its thread, behind the plain entry points.
//
// Every use takes a reference of its own, so the object lives until the last of them is let
// go, whoever drops it from here meanwhile. Never destroyed; any thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>

#include "publicInc/CommonUtilService.h"
#include "publicInc/ExportSignal.h"
#include "util/Mutex.h"
#include "zel_platform/prax.h"

namespace commonutil {

class ServiceHost {
 public:
  static ServiceHost& GetInst();
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;

  // 0 when the thread runs, 1 without memory, else the thread creation's error.
  int Startup();
  void ShutDown();

  // Null when there is no service object.
  std::shared_ptr<CommonUtilService> Pin();
  // Makes the object when there is none; null without memory.
  std::shared_ptr<CommonUtilService> PinOrCreate();

  // After a request was imported: wakes an eager service thread that sleeps.
  void WakeService();
  // Whether an import wakes the service thread; else it looks every few milliseconds.
  void SetEager(bool eager) { m_eager.store(eager); }

  // A descriptor that is readable while messages of the service wait for the host, the same for
  // good; -1 without a service, or where there can be none.
  int ShowSignal();
  // True when a message waits for the host or comes in time; false without a service, also when it
  // goes meanwhile.
  bool WaitForExport(unsigned int timeoutMs);

 private:
  ServiceHost() = default;
  static void* ServiceMainProcess(void*);
  void Serve();
  void DropService();
  // Sleeps until it is time to look for requests again.
  void Idle(const msg_storage& store);

  // Set by ShutDown; cleared by the thread alone, as it starts: a stop that comes earlier is
  // lost. Sequentially consistent: nothing here is hot.
  std::atomic<std::uint32_t> m_stopFlag{0};

  std::atomic<bool> m_eager{false};
  Mutex m_sleepLock;
  std::condition_variable m_wake;
  // Set by the service thread while it sleeps eagerly. An import that sees it late costs one poll
  // interval.
  std::atomic<bool> m_asleep{false};
  bool m_woken ZEL_GUARDED_BY(m_sleepLock) = false;

  ExportSignal m_signal;

  Mutex m_serviceLock;
  std::shared_ptr<CommonUtilService> m_service ZEL_GUARDED_BY(m_serviceLock);

  // Held across the join, so that two shut-downs do not join twice. Taken before m_threadLock.
  Mutex m_shutDownLock;
  // Held across the creation, so that two start-ups start one thread.
  Mutex m_threadLock;
  PRAX_THREAD m_thread ZEL_GUARDED_BY(m_threadLock) = 0;

  // The last message that a stop left unhandled, still reachable. Service thread only.
  char* m_unhandled = nullptr;
};

}  // namespace commonutil
