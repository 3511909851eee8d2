// "config.txt", against a plain reading of its rules.
#include <sstream>

#include "CommonUtilConfig.h"
#include "FuzzInput.h"
#include "support/TempDir.h"

namespace {

struct Manager : commonutil::ConfigManager {};

std::map<std::string, std::string> ReadPlainly(const std::string& content) {
  std::map<std::string, std::string> settings;
  std::istringstream lines(content);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
      settings.emplace(line.substr(0, equals), line.substr(equals + 1));
    }
  }
  return settings;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const support::TempDir directory;
  FuzzInput input(data, size);
  // Lines that begin in one piece of the file and end in the next come up by themselves.
  const std::string padding(input.TakeByte() % 2 == 0 ? 0 : 64 * 1024 - 8, 'p');
  const std::string content = padding + input.Rest();
  support::WriteWholeFile(directory.File("config.txt"), content);

  Manager manager;
  Require(manager.InitConfig(directory.Path()) == 0, "the first reading succeeds");
  Require(manager.GetConfigs() == ReadPlainly(content), "the settings are the file's lines");
  for (const auto& [key, value] : manager.GetConfigs()) {
    Require(manager.GetConfig(key) == value, "one setting is as in the copy of all");
  }
  Require(manager.readConfig() == 0 && manager.GetConfigs() == ReadPlainly(content),
          "another reading changes nothing");
  return 0;
}
