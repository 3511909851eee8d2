// Mends what an examination has found. Before anything else it copies what it is going to touch.
#pragma once

#include <string>

#include "Examination.h"

namespace zelctl {

class DirectoryRepair {
 public:
  // Hold the directory's lock from before the examination on.
  DirectoryRepair(const std::string& directory, const Examination& examination)
      : m_directory(directory), m_examination(examination) {}

  // Copies the files to DIR/doctor-backup-TIME, with their modes in a file "modes", and then makes
  // the repairs. Throws std::system_error, with nothing changed, when they cannot be copied; what
  // cannot be mended stays as it is.
  void Run();
  // The directory of the copies; "" when nothing had to be mended.
  const std::string& Backup() const { return m_backup; }

 private:
  std::string At(const std::string& name) const { return m_directory + "/" + name; }
  void CopyTouched();
  void Mend(const Finding& finding) const;
  // The file has the owner that it had, or its folder has, also where root repairs.
  void Put(const std::string& name, const std::string& bytes, unsigned int mode) const;
  void Rebuild() const;

  const std::string m_directory;
  const Examination& m_examination;
  std::string m_backup;
};

}  // namespace zelctl
