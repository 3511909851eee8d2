// The logs of a directory, masked, as many of their latest lines as there is room for.
//
// Files are read twice and never whole: once to learn how much their masked lines take, by pieces
// of some KB, and once for the pieces that are kept. What is appended meanwhile is left out.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "BundleMask.h"

namespace zelctl {

class BundleLogs {
 public:
  // Lines that follow one another.
  struct Piece {
    off_t offset = 0;
    std::string time;  // of the last line; never less than that of the piece before
    std::uint64_t bytes = 0;
    std::uint64_t lines = 0;
  };

  struct Log {
    std::string name;
    int descriptor = -1;
    off_t size = 0;
    long long writtenAt = 0;
    std::vector<Piece> pieces;
    std::size_t firstKept = 0;  // of the pieces
  };

  // Called with the bytes read; what it throws ends the work.
  using Step = std::function<void(std::uint64_t)>;

  explicit BundleLogs(const BundleMask& mask) : m_mask(mask) {}
  ~BundleLogs();
  BundleLogs(const BundleLogs&) = delete;
  BundleLogs& operator=(const BundleLogs&) = delete;

  // Takes the descriptor of a regular file.
  void Add(const std::string& name, int descriptor);
  std::uint64_t Bytes() const;

  void Measure(const Step& step);
  // Keeps the latest pieces of all logs that fit.
  void KeepWithin(std::uint64_t budget);

  const std::vector<Log>& Logs() const { return m_logs; }
  static std::uint64_t LinesLeftOut(const Log& log);
  // The kept lines, each with its line feed.
  void Write(const Log& log, Removals* removals, const std::function<void(const std::string&)>& out,
             const Step& step) const;

 private:
  const BundleMask& m_mask;
  std::vector<Log> m_logs;
};

}  // namespace zelctl
