// What the campaign programs share: their options, and what they report.
#pragma once

#include <string>

#include <json/value.h>

namespace campaign {

// Any thread may add findings.
class Report {
 public:
  // Reads --seconds N, --seed N and --json FILE; ends the process with 2 for anything else.
  Report(const char* what, int seconds, int argc, char** argv);
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  int Seconds() const { return m_seconds; }
  unsigned Seed() const { return m_seed; }

  // Prints the finding and keeps it for the file.
  void Find(const std::string& finding);
  // Further members of the file. Not for two threads at a time.
  Json::Value& Member(const char* name) { return m_json[name]; }

  // Prints a line of summary and writes the file. What the program ends with: 1 after a finding.
  int End(long long rounds);

 private:
  int m_seconds;
  unsigned m_seed = 1;
  std::string m_file;
  Json::Value m_json;
};

}  // namespace campaign
