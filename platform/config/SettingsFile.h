// Reading platform.json.
#pragma once

#include <string>

#include <json/value.h>

struct SettingsFile {
  Json::Value root;   // null unless the file holds an object
  std::string fault;  // for one log line; empty: none
};

// A regular file of at most 1 MB with one JSON object; comments are not allowed. A file that does
// not exist is a fault only when `mustExist`. Never blocks on a pipe or a device.
SettingsFile ReadSettingsFile(const std::string& path, bool mustExist);
