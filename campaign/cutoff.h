// What the cut-off campaigns share: the host that is cut off, and what must be left of its work.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

namespace campaign {

struct Options {
  int seconds = 60;
  unsigned int seed = 1;
  std::string json;  // a file; empty: none
  std::string only;  // one case, as a finding names it
};

// Ends the program when the command line is wrong.
Options ReadOptions(int argc, char** argv);

struct HostRun {
  std::string faults;   // for the preloaded library; empty: without it
  int killAfterUs = 0;  // 0: not killed
  bool check = false;   // looks and ends, without work
  unsigned int seed = 1;
  int rounds = 1;
};

struct HostEnd {
  std::vector<std::string> lines;  // whole ones
  bool hung = false;
  int status = 0;  // of waitpid
};

HostEnd RunHost(const std::string& directory, const HostRun& run);

// What a data directory must hold, learnt from what the host told. Not thread-safe.
class Model {
 public:
  explicit Model(std::string directory) : m_directory(std::move(directory)) {}

  // Takes what a run told. Returns what is wrong with the rows that it found, or "".
  std::string Learn(const HostEnd& end);
  // Starts without a fault, twice or more, and looks at everything. Returns what is wrong, or "".
  // `events`: the confirmed events count too.
  std::string Check(bool events);
  bool Started() const { return m_started; }

 private:
  std::string CheckStart();
  std::string CheckEvents();
  std::string CheckFiles() const;

  const std::string m_directory;
  std::map<unsigned int, std::set<long>> m_allowed;  // by key; -1: no row. No entry: no row
  std::set<long> m_events;                           // confirmed ones
  bool m_started = false;                            // once, with result 0
  std::string m_secret;                              // the salt file after a start
};

// Writes `result` when a file is named.
void WriteJson(const Options& options, const Json::Value& result);

}  // namespace campaign
