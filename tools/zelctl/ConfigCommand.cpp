#include "ConfigCommand.h"

#include <iostream>
#include <map>
#include <string>

#include "CommonUtilConfig.h"
#include "Options.h"
#include "Text.h"

namespace zelctl {
namespace {

using Settings = std::map<std::string, std::string>;

bool Flushed() {
  if (std::cout.flush()) return true;
  Complain("cannot write to standard output");
  return false;
}

bool PrintAll(const Settings& settings) {
  for (const auto& [key, value] : settings) std::cout << key << '=' << value << '\n';
  return Flushed();
}

bool PrintOne(const Settings& settings, const std::string& key) {
  const auto found = settings.find(key);
  if (found == settings.end()) {
    Complain("no setting " + Quoted(key));
    return false;
  }
  std::cout << found->second << '\n';
  return Flushed();
}

}  // namespace

bool ShowConfig(const std::vector<std::string>& arguments, const std::atomic<bool>&) {
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
  return arguments.size() == 1 ? PrintAll(settings) : PrintOne(settings, arguments[1]);
}

}  // namespace zelctl
