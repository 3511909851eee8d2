// The files that an earlier process left in the tracking spool.
#include <filesystem>

#include "FuzzInput.h"
#include "support/TempDir.h"
#include "track/TrackSpool.h"

namespace {

constexpr std::int64_t kNowMs = 4000000000000;  // a fixed time that no file is too old for
constexpr TrackSalt kSalt = {1, 2, 3};

TrackKey Key() {
  TrackKey key;
  key.fill(7);
  return key;
}

// Reads everything and accepts it; returns how many records came.
std::uint64_t Drain(TrackSpool* spool, std::string* last) {
  const std::uint64_t pending = spool->Pending();
  TrackReader reader(*spool);
  std::uint64_t count = 0;
  while (reader.Next(last)) ++count;
  const std::uint64_t damaged = reader.TakeDamaged();
  Require(count + damaged <= pending, "no more records come than were counted");
  Require(spool->Accept(reader.Position(), damaged), "what was read is accepted");
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const support::TempDir directory;
  static const TrackKey key = Key();
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
    std::filesystem::remove(entry.path(), ignored);
  }
  FuzzInput input(data, size);
  const bool hasPosition = input.TakeByte() % 2 != 0;
  if (hasPosition) support::WriteWholeFile(directory.File("position"), input.TakeLine() + "\n");
  support::WriteWholeFile(directory.File(TrackFileName(1, kSalt)), input.Rest());

  TrackLimits limits;
  limits.ageMs = INT64_MAX;
  TrackSpool spool(directory.File(""), key, limits);
  Require(spool.Open(kNowMs), "the spool opens, whatever its files hold");
  std::string last;
  (void)Drain(&spool, &last);
  Require(spool.Append("one more", kNowMs), "a record can be added");
  Require(Drain(&spool, &last) == 1 && last == "one more", "and comes back");
  Require(spool.Pending() == 0, "nothing is left");
  return 0;
}
