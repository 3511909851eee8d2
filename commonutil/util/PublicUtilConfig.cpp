#include <cstring>
#include <memory>

#include <json/reader.h>

#include "util/Log.h"
#include "util/PublicUtil.h"
#include "util/ScopeGuard.h"
#include "zel_platform/prax.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/PublicUtil";
constexpr char kConfigFileName[] = "sdkCommonConfig.json";
constexpr char kIdentityKey[] = "zel_domain_identity";
constexpr char kDefaultStrategy[] = "com";
constexpr char kDefaultTopLevel[] = ".com";
constexpr unsigned int kConfigFileMode = 0640;

// Null for a text that is not JSON.
Json::Value ParseQuietly(const char* text) {
  try {
    Json::Value root;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (reader->parse(text, text + std::strlen(text), &root, nullptr)) return root;
  } catch (const std::exception&) {  // nested too deeply: as damaged as any other
  }
  return Json::Value();
}

// False when the file cannot be read, which is logged under the name of the asking
// function. A damaged file leaves `root` null.
bool ReadConfigFile(const std::string& path, const char* function, Json::Value& root) {
  char* buffer = nullptr;
  const ScopeGuard release([&] {
    void* memory = buffer;
    PRAX_MemFreeSetNullD(&memory);
  });
  const unsigned int ret = PublicUtil::UtilReadFile(path, &buffer);
  (void)PRAX_Chmod(path.c_str(), kConfigFileMode);  // there may be no file
  if (ret != 0 || !buffer) {
    ::LogStream::GetLogStream(kLogModule, kError, kCheckPlain, kLogFile, function, __LINE__)
        << "read config file [" << path << "] error";
    return false;
  }
  root = ParseQuietly(buffer);
  return true;
}

// Null when there is no such member or it is no text.
const Json::Value* TextMember(const Json::Value& root, const std::string& key) {
  if (!root.isObject()) return nullptr;
  const Json::Value& member = root[key];
  return member.isString() ? &member : nullptr;
}

}  // namespace

Mutex& PublicUtil::m_configMutex = *new Mutex;
std::string& PublicUtil::m_configFilePath = *new std::string;
std::string& PublicUtil::m_serverDomainIdentity = *new std::string;
std::atomic<bool> PublicUtil::m_haveIdentity{false};
Mutex& PublicUtil::m_strategyMutex = *new Mutex;
std::string& PublicUtil::m_serverDomainStrategy = *new std::string(kDefaultStrategy);
bool PublicUtil::m_serverDomainStrategyChanged = false;

void PublicUtil::SetConfigFilePath(const std::string& path) {
  if (path.empty()) return;
  MutexLock hold(m_configMutex);
  m_configFilePath = path;
  if (path.back() == '\\' || path.back() == '/') return;
  m_configFilePath += path.find('\\') == std::string::npos ? '/' : '\\';
}

void PublicUtil::SetServerDomainStrategy(const std::string& strategy, bool changed) {
  if (strategy.empty()) return;
  MutexLock hold(m_strategyMutex);
  m_serverDomainStrategy = strategy;
  m_serverDomainStrategyChanged = changed;
}

std::string PublicUtil::GetServerDomainIdentity() {
  if (m_haveIdentity.load(std::memory_order_acquire)) return m_serverDomainIdentity;
  MutexLock hold(m_configMutex);
  return IdentityLocked();
}

std::string PublicUtil::IdentityLocked() {
  if (m_haveIdentity.load(std::memory_order_acquire)) return m_serverDomainIdentity;
  constexpr char kFunction[] = "GetServerDomainIdentity";
  Json::Value root;
  if (!ReadConfigFile(m_configFilePath + kConfigFileName, kFunction, root)) return {};
  const Json::Value* const identity = TextMember(root, kIdentityKey);
  if (!identity) return {};
  std::string value = identity->asString();
  ::LogStream::GetLogStream(kLogModule, kInfo, kCheckData, kLogFile, kFunction, __LINE__)
      << "get server domain identity " << kIdentityKey << ": " << value;
  if (value.empty()) return {};  // still unknown: the next call reads again
  m_serverDomainIdentity = value;
  m_haveIdentity.store(true, std::memory_order_release);
  return value;
}

std::string PublicUtil::GetUrlFromCommonConfig(const std::string& key) {
  if (key.empty()) return {};
  MutexLock hold(m_configMutex);
  Json::Value root;
  if (!ReadConfigFile(m_configFilePath + kConfigFileName, __func__, root)) return {};
  const Json::Value* const member = TextMember(root, key);
  std::string url = WithStrategyLocked(member ? member->asString() : std::string());
  ZEL_LOG_DATA(kInfo) << "get url " << key << ": " << url;
  return url;
}

std::string PublicUtil::WithStrategyLocked(const std::string& url) {
  std::string strategy;
  {
    MutexLock hold(m_strategyMutex);
    if (!m_serverDomainStrategyChanged) return url;
    strategy = m_serverDomainStrategy;
  }
  const std::string identity = IdentityLocked();
  if (identity.empty()) return url;
  return replaceFirst(url, identity + kDefaultTopLevel, identity + "." + strategy);
}

}  // namespace commonutil
