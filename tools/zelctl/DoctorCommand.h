// "zelctl doctor": what is wrong with the data directory of a client that does not run.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <json/value.h>

namespace zelctl {

// DIR [--repair] [--json]: says what it finds, each with cause and remedy. Looks at a copy; changes
// nothing unless --repair is given. False when there is something, repaired or not, and when a
// client uses the directory. Throws UsageError.
bool RunDoctor(const std::vector<std::string>& given, const std::atomic<bool>& interrupted);

class Examination;

// What the doctor prints on it, both ways.
void ReportOn(const std::string& directory, const Examination& examination, std::string* text,
              Json::Value* json);

}  // namespace zelctl
