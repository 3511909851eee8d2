#include "logger/LogModules.h"

#include <time.h>

#include <algorithm>
#include <utility>

#include "zel_platform/logger.h"

namespace {

constexpr int kLevelWithoutFile = LOGGER_LEVEL_INFO;
constexpr std::size_t kUnopenedModulesMax = 128;  // bounds what invented names can cost

}  // namespace

std::int64_t LogClockMs() {
  timespec now{};
  (void)::clock_gettime(CLOCK_REALTIME, &now);  // cannot fail with this clock
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

LogModule::LogModule(std::string name, LogModule* next)
    : m_name(std::move(name)), m_next(next), m_level(kLevelWithoutFile) {}

void LogModule::Write(std::string_view line, std::int64_t nowMs) {
  const std::lock_guard<std::mutex> held(m_lock);
  if (m_kept.empty() && m_file != nullptr && m_file->Append(line, nowMs)) return;
  KeepLocked(line);
  WriteKeptLocked(nowMs);
}

bool LogModule::Open(const std::string& path, int sizeKb, int oldFiles, int level) {
  auto file = std::make_unique<LogFile>(path, sizeKb, oldFiles);
  const bool usable = !path.empty() && file->Open();
  const std::lock_guard<std::mutex> held(m_lock);
  CloseLocked();
  if (!usable) return false;
  m_file = std::move(file);
  m_level.store(std::clamp<int>(level, LOGGER_LEVEL_ERROR, LOGGER_LEVEL_DEBUG),
                std::memory_order_relaxed);
  WriteKeptLocked(LogClockMs());
  return true;
}

void LogModule::Close() {
  const std::lock_guard<std::mutex> held(m_lock);
  CloseLocked();
}

void LogModule::Reset() {
  const std::lock_guard<std::mutex> held(m_lock);
  CloseLocked();
  m_kept.clear();
  m_keptBytes = 0;
}

std::string LogModule::OpenPath() const {
  const std::lock_guard<std::mutex> held(m_lock);
  return m_file == nullptr ? std::string() : m_file->Path();
}

void LogModule::CloseLocked() {
  m_file.reset();
  m_level.store(kLevelWithoutFile, std::memory_order_relaxed);
}

void LogModule::KeepLocked(std::string_view line) {
  if (line.size() > kKeptBytes) return;
  m_kept.emplace_back(line);
  m_keptBytes += line.size();
  while (m_kept.size() > kKeptLines || m_keptBytes > kKeptBytes) {
    m_keptBytes -= m_kept.front().size();
    m_kept.pop_front();
  }
}

void LogModule::WriteKeptLocked(std::int64_t nowMs) {
  while (m_file != nullptr && !m_kept.empty() && m_file->Append(m_kept.front(), nowMs)) {
    m_keptBytes -= m_kept.front().size();
    m_kept.pop_front();
  }
}

LogModules& LogModules::Instance() {
  static LogModules& instance = *new LogModules;
  return instance;
}

LogModule* LogModules::Find(const char* name) {
  const std::string_view wanted = name == nullptr ? "" : name;
  if (LogModule* known = Known(wanted)) return known;
  const std::lock_guard<std::mutex> held(m_addLock);
  if (LogModule* known = Known(wanted)) return known;  // added meanwhile
  if (m_count >= kUnopenedModulesMax) return nullptr;
  return &AddLocked(wanted);
}

LogModule& LogModules::FindForOpening(const char* name) {
  const std::string_view wanted = name == nullptr ? "" : name;
  const std::lock_guard<std::mutex> held(m_addLock);
  LogModule* known = Known(wanted);
  return known != nullptr ? *known : AddLocked(wanted);
}

void LogModules::ResetAll() {
  for (LogModule* module = m_first.load(std::memory_order_acquire); module != nullptr;
       module = module->Next()) {
    module->Reset();
  }
}

LogModule* LogModules::Known(std::string_view name) const {
  LogModule* module = m_first.load(std::memory_order_acquire);
  while (module != nullptr && module->Name() != name) module = module->Next();
  return module;
}

LogModule& LogModules::AddLocked(std::string_view name) {
  auto* module = new LogModule(std::string(name), m_first.load(std::memory_order_relaxed));
  m_first.store(module, std::memory_order_release);  // reachable from here on, never freed
  ++m_count;
  return *module;
}
