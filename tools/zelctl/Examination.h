// What is wrong with a data directory whose client does not run.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CacheFile.h"
#include "DatabaseKey.h"
#include "StagedDirectory.h"

namespace zelctl {

// How the doctor mends a finding.
enum class Repair {
  kNone,        // nothing to do, or nothing that a program could do
  kSetMode,     // takes permissions away from others, gives its own back to the owner
  kSetOwner,    // gives the file to the owner of the directory, which takes root
  kTakeHealed,  // takes the file of the key store that was rebuilt from its twin
  kTrimSalt,    // takes the line break from the salt line
  kRemove,      // removes what is of no use any more, so that the client makes it anew
  kRebuild,     // makes the database anew, with the entries that can be read
};

struct Finding {
  const char* id;    // for programs
  std::string file;  // relative to the directory, "." for itself
  std::string problem;
  std::string cause;
  std::string remedy;
  Repair repair = Repair::kNone;
  std::vector<std::string> touched;  // what the repair changes, relative to the directory
  unsigned int mode = 0;             // that the repair sets
};

// Looks at a copy of the directory; only modes and space are asked of the directory itself.
class Examination {
 public:
  // Throws std::system_error, for a file that may not be read among others.
  explicit Examination(const std::string& directory);

  const std::vector<Finding>& Findings() const { return m_findings; }
  const StagedDirectory& Staged() const { return m_staged; }
  const DatabaseKey& Key() const { return m_key; }
  // What the database holds as far as it can be read, and the key to write it with.
  const std::vector<CacheRow>& Rows() const { return m_rows; }
  const std::string& EffectiveKey() const;

 private:
  void Add(Finding finding) { m_findings.push_back(std::move(finding)); }
  bool HoldsData() const;
  void ExamineModes();
  void ExamineSpace();
  void ExamineKeyStore();
  void ExamineStoreFile(const char* name, StoreFileState state);
  void ExamineSalt();
  void ExamineDatabase();
  void ExamineContent(CacheFile* file);
  void AddRebuild(const char* id, const std::string& problem, const std::string& cause);
  void AddLoss(const char* id, const char* file, const std::string& problem,
               const std::string& cause, const std::vector<std::string>& useless);
  std::vector<std::string> DatabaseFiles() const;
  std::vector<std::string> DependentFiles() const;

  const std::string m_directory;
  const StagedDirectory m_staged;
  DatabaseKey m_key;
  bool m_usesTrimmedKey = false;
  std::vector<CacheRow> m_rows;
  std::vector<Finding> m_findings;
};

}  // namespace zelctl
