#include "ConfigCommand.h"

#include <map>
#include <string>

#include "Arguments.h"
#include "CommonUtilConfig.h"
#include "Options.h"
#include "Report.h"
#include "Text.h"

namespace zelctl {
namespace {

using Settings = std::map<std::string, std::string>;

constexpr char kJsonOption[] = "--json";

bool PrintAll(const Settings& settings, bool asJson) {
  std::string text;
  Json::Value object(Json::objectValue);
  for (const auto& [key, value] : settings) {
    text += key + '=' + value + '\n';
    object[key] = value;
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
  auto& manager = commonutil::ConfigManager::GetInst();
  if (dir.empty() || !manager.Exists(dir + "/.")) {
    throw UsageError("config needs a directory, not " + Quoted(dir));
  }
  (void)manager.InitConfig(dir);  // 0: this process has not done so before
  const Settings settings = manager.GetConfigs();
  const bool asJson = parsed.Has(kJsonOption);
  return arguments.size() == 1 ? PrintAll(settings, asJson)
                               : PrintOne(settings, arguments[1], asJson);
}

}  // namespace zelctl
