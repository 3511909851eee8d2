#include "zel_platform/config.h"

#include <mutex>
#include <unordered_map>

#include "config/config_ref.h"
#include "config/settings.h"

namespace {

struct Settings {
  std::mutex lock;
  std::unordered_map<int, int> values;
};

Settings& TheSettings() {
  static Settings* const instance = new Settings;
  return *instance;
}

}  // namespace

int OrbGetGlobalInt32CfgWithDefVal(int number, int defaultValue) {
  Settings& settings = TheSettings();
  const std::lock_guard<std::mutex> hold(settings.lock);
  const auto setting = settings.values.find(number);
  return setting == settings.values.end() ? defaultValue : setting->second;
}

void orb_config_ref_set(int number, int value) {
  Settings& settings = TheSettings();
  const std::lock_guard<std::mutex> hold(settings.lock);
  settings.values[number] = value;
}

void orb_config_ref_clear() {
  Settings& settings = TheSettings();
  const std::lock_guard<std::mutex> hold(settings.lock);
  settings.values.clear();
}

void orb_config_set_directory(const std::string& /*directory*/) {}

int orb_config_int(const char* /*path*/, int defaultValue) { return defaultValue; }

std::string orb_config_text(const char* /*path*/, const char* defaultValue) { return defaultValue; }
