#include "ConfigCommand.h"

#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <system_error>

#include "Arguments.h"
#include "CommonUtilConfig.h"
#include "Options.h"
#include "Report.h"
#include "Secrets.h"
#include "Text.h"

namespace zelctl {
namespace {

using Settings = std::map<std::string, std::string>;

constexpr char kJsonOption[] = "--json";

// The library makes a file that is missing, and reads only one that it may also write.
bool CanBeRead(const std::string& directory) {
  const std::string path = directory + "/config.txt";
  std::error_code error;
  if (!std::filesystem::exists(path, error)) {
    Complain("no " + Quoted(path) + ": its client has no settings, and makes the file empty when " +
             "it first asks");
    return false;
  }
  if (std::filesystem::is_regular_file(path, error) && ::access(path.c_str(), R_OK | W_OK) == 0) {
    return true;
  }
  Complain(Quoted(path) + " is no file that this user may read and write; a client needs both, " +
           "else it has no settings");
  return false;
}

bool PrintAll(const Settings& settings, bool asJson) {
  std::string text;
  Json::Value object(Json::objectValue);
  for (const auto& [key, value] : settings) {
    const std::string shown = HiddenSetting(key, value);
    text += Printable(key) + '=' + Printable(shown) + '\n';
    object[key] = shown;
  }
  return Print(asJson ? JsonText(object) : text);
}

bool PrintOne(const Settings& settings, const std::string& key, bool asJson) {
  const auto found = settings.find(key);
  if (found == settings.end()) {
    Complain("no setting " + Quoted(key));
    return false;
  }
  if (!asJson) return Print(found->second + '\n');
  Json::Value object(Json::objectValue);
  object[key] = found->second;
  return Print(JsonText(object));
}

}  // namespace

bool ShowConfig(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments parsed(given, {kJsonOption});
  const std::vector<std::string>& arguments = parsed.Words();
  if (arguments.empty() || arguments.size() > 2) {
    throw UsageError("config needs DIR and at most one KEY");
  }
  const std::string& dir = arguments[0];
  std::error_code ignored;  // what cannot be looked at is no directory of settings either
  if (!std::filesystem::is_directory(dir, ignored)) {
    throw UsageError("config needs a directory, not " + Quoted(dir));
  }
  if (!CanBeRead(dir)) return false;
  auto& manager = commonutil::ConfigManager::GetInst();
  (void)manager.InitConfig(dir);  // 0: this process has not done so before
  const Settings settings = manager.GetConfigs();
  const bool asJson = parsed.Has(kJsonOption);
  return arguments.size() == 1 ? PrintAll(settings, asJson)
                               : PrintOne(settings, arguments[1], asJson);
}

}  // namespace zelctl
