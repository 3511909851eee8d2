// The settings of an optional text file "config.txt", kept in memory. For the SDK's other
// libraries; this library reads none of them.
//
// One setting a line, "key=value", split at the first "=". Key and value are taken as they
// stand, blanks and a carriage return at the end included. A line without "=" is skipped; of
// several lines with one key the first counts.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "publicInc/ZelExport.h"
#include "util/Mutex.h"

namespace commonutil {

// Any thread. The file is read without a lock held; until it is read there are no settings.
class ZEL_API ConfigManager {
 public:
  // Lives to the end of the process.
  static ConfigManager& GetInst();
  ConfigManager(const ConfigManager&) = delete;
  ConfigManager& operator=(const ConfigManager&) = delete;

  // True for anything of that name, a directory too.
  static bool Exists(const std::string& path);

  // Reads "config.txt" of the directory `dir`, or creates it, empty, where it is missing. An
  // empty `dir` is the root directory. Returns 0, also when the file can be neither read nor
  // created; 1 with nothing changed from the second call on, whatever the first one found.
  int InitConfig(const std::string& dir);
  // Reads the file of InitConfig once more; settings known already keep their values. The file
  // is opened for reading and writing: one that may not be written yields nothing. It is read
  // whole, whatever its size. Returns 0, or 1 before InitConfig.
  int readConfig();

  // The value of `key`; empty when there is none.
  std::string GetConfig(const std::string& key);
  // A copy of all settings.
  std::map<std::string, std::string> GetConfigs();

 protected:
  ConfigManager() = default;  // a test starts with one of its own
  ~ConfigManager() = default;

 private:
  ZEL_LOCAL bool Enter(const std::string& dir);

  std::int32_t inited ZEL_GUARDED_BY(m_lock) = 0;  // 1 from the first InitConfig on
  std::string configPath ZEL_GUARDED_BY(m_lock);
  std::map<std::string, std::string> configs ZEL_GUARDED_BY(m_lock);
  Mutex m_lock;
};

}  // namespace commonutil
