#include "zel_platform/config.h"

#include <stdlib.h>

#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "config/SettingsFile.h"
#include "config/config_ref.h"
#include "config/settings.h"
#include "zel_platform/logger.h"

namespace {

constexpr char kFileVariable[] = "ZEL_PLATFORM_CONFIG";
constexpr char kFileName[] = "platform.json";
constexpr char kIntegers[] = "integers.";

// The part of a dotted path before its first dot, which is taken off together with the dot.
std::string_view TakeName(std::string_view* path) {
  const std::string_view name = path->substr(0, path->find('.'));
  path->remove_prefix(name.size() < path->size() ? name.size() + 1 : name.size());
  return name;
}

const Json::Value* Element(const Json::Value& list, std::string_view place) {
  Json::ArrayIndex index = 0;
  for (const char digit : place) {
    if (digit < '0' || digit > '9') return nullptr;
    index = index * 10 + static_cast<Json::ArrayIndex>(digit - '0');
    if (index >= list.size()) return nullptr;
  }
  return place.empty() ? nullptr : &list[index];
}

const Json::Value* Child(const Json::Value& parent, std::string_view name) {
  if (parent.isArray()) return Element(parent, name);
  return parent.isObject() ? parent.find(name.data(), name.data() + name.size()) : nullptr;
}

class Settings {
 public:
  static Settings& Instance() {
    static Settings* const instance = new Settings;
    return *instance;
  }

  std::optional<int> Number(int number);
  void SetNumber(int number, int value);
  void SetDirectory(const std::string& directory);
  void Clear();

  // A copy of the file's member, null when there is none.
  Json::Value Member(std::string_view path);

 private:
  std::string ReadLocked();

  std::mutex m_lock;  // held while the file is read: the others wait for its content
  std::unordered_map<int, int> m_numbers;  // set through the seam
  std::string m_directory;
  bool m_isRead = false;
  Json::Value m_file;
};

std::optional<int> Settings::Number(int number) {
  const std::lock_guard<std::mutex> hold(m_lock);
  const auto found = m_numbers.find(number);
  return found == m_numbers.end() ? std::nullopt : std::optional<int>(found->second);
}

void Settings::SetNumber(int number, int value) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_numbers[number] = value;
}

void Settings::SetDirectory(const std::string& directory) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_directory = directory;
  m_isRead = false;
}

void Settings::Clear() {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_numbers.clear();
  m_directory.clear();
  m_isRead = false;
}

// Returns what is wrong with the file, for the log; empty: nothing.
std::string Settings::ReadLocked() {
  m_isRead = true;
  m_file = Json::Value();
  const char* const named = ::getenv(kFileVariable);
  const bool isNamed = named != nullptr && *named != '\0';
  if (!isNamed && m_directory.empty()) return {};
  SettingsFile file = isNamed ? ReadSettingsFile(named, true)
                              : ReadSettingsFile(m_directory + "/" + kFileName, false);
  m_file.swap(file.root);
  return file.fault;
}

Json::Value Settings::Member(std::string_view path) {
  std::string fault;
  Json::Value copy;
  {
    const std::lock_guard<std::mutex> hold(m_lock);
    if (!m_isRead) fault = ReadLocked();
    const Json::Value* member = &m_file;
    while (member != nullptr && !path.empty()) member = Child(*member, TakeName(&path));
    if (member != nullptr) copy = *member;
  }
  if (!fault.empty()) {
    LogStream::GetLogStream("native_sdk", LOGGER_LEVEL_ERROR, 0, "platform/config/config", "Member",
                            __LINE__)
        << kFileName << " " << fault << "; the defaults hold";
  }
  return copy;
}

int IntOr(const Json::Value& member, int defaultValue) {
  return member.isInt() ? member.asInt() : defaultValue;
}

}  // namespace

int OrbGetGlobalInt32CfgWithDefVal(int number, int defaultValue) {
  try {
    const std::optional<int> set = Settings::Instance().Number(number);
    if (set.has_value()) return *set;
    return IntOr(Settings::Instance().Member(kIntegers + std::to_string(number)), defaultValue);
  } catch (...) {  // no memory
    return defaultValue;
  }
}

void orb_config_ref_set(int number, int value) { Settings::Instance().SetNumber(number, value); }

void orb_config_ref_clear() { Settings::Instance().Clear(); }

void orb_config_set_directory(const std::string& directory) {
  Settings::Instance().SetDirectory(directory);
}

int orb_config_int(const char* path, int defaultValue) {
  return IntOr(Settings::Instance().Member(path), defaultValue);
}

std::string orb_config_text(const char* path, const char* defaultValue) {
  const Json::Value member = Settings::Instance().Member(path);
  return member.isString() ? member.asString() : defaultValue;
}
