// The one service object of the process and its thread, behind the plain entry points.
//
// Every use takes a reference of its own, so the object lives until the last of them is let
// go, whoever drops it from here meanwhile. Never destroyed; any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "publicInc/CommonUtilService.h"
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

 private:
  ServiceHost() = default;
  static void* ServiceMainProcess(void*);
  void Serve();
  void DropService();

  // Set by ShutDown; cleared by the thread alone, as it starts: a stop that comes earlier is
  // lost. Sequentially consistent: nothing here is hot.
  std::atomic<std::uint32_t> m_stopFlag{0};

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
