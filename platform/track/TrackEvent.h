// One tracking event: composed from fields, kept as a compact record, read back for sending.
//
// A record is the head - format, kind, time, sequence, session - and then one field after the
// other: its number, its length, its bytes. Texts are kept as they came; ReadableText makes them
// fit to leave the library.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What made an event. The numbers are in the spool: add at the end only.
enum class TrackKind : std::uint8_t {
  kUserTrack,
  kFinishEvent,
  kSubEvent,
  kMediaTrack,
  kConferenceData,
  kCpuAndMemory,
  kErrorAnalyze,
  kTraceApiLog,
  kLibrary,  // the library's own report
  kCount
};

// The numbers are in the spool: add at the end only.
enum class TrackField : std::uint8_t {
  kEventId,
  kArg1,
  kArg2,
  kArg3,
  kArgs,
  kParam,
  kIndex,
  kFlag,
  kId,
  kData,
  kValue0,
  kValue1,
  kValue2,
  kText,
  kType,
  kFirst,
  kSecond,
  kStartTimeMs,
  kDurationMs,
  kSubEvents,
  kHasSubEvent,
  kDropped,
  kPreviousSession,
  kPreviousSequence,
  kUploadSwitch,
  kContext,              // thirteen texts
  kSdk = kContext + 13,  // ten texts, which may describe the user
  kCount = kSdk + 10
};

constexpr TrackField operator+(TrackField first, std::size_t step) {
  return static_cast<TrackField>(static_cast<std::size_t>(first) + step);
}

// No record is longer; what would be is dropped.
constexpr std::size_t kLongestTrackRecord = std::size_t{256} * 1024;

using TrackSession = std::array<unsigned char, 16>;
constexpr std::size_t kTrackSessionLength = 36;
std::string TrackSessionText(const TrackSession& session);  // as a UUID is written

// Fields on their way into a record. Not thread-safe.
class TrackFields {
 public:
  TrackFields() { m_bytes.reserve(kUsualBytes); }
  // A null text is left out. A text need not end within `capacity`.
  TrackFields& Text(TrackField field, const char* text);
  TrackFields& Text(TrackField field, const char* text, std::size_t capacity);
  TrackFields& Number(TrackField field, std::int64_t number);

  const std::string& Bytes() const { return m_bytes; }
  bool TooLong() const { return m_tooLong; }

 private:
  static constexpr std::size_t kUsualBytes = 512;

  std::string m_bytes;
  bool m_tooLong = false;
};

struct TrackHead {
  TrackKind kind = TrackKind::kLibrary;
  std::int64_t timeMs = 0;  // since 1970, UTC
  std::uint64_t sequence = 0;
  TrackSession session{};
};

// Appends a head; the fields follow it.
void AppendTrackHead(const TrackHead& head, std::string* record);

// A record that was read back. The texts point into it.
struct TrackEvent {
  struct Field {
    TrackField field;
    bool isText;
    std::string_view text;
    std::int64_t number;
  };
  TrackHead head;
  std::vector<Field> fields;

  const Field* Find(TrackField field) const;
};

// False for what is no record of this format. Fields of a later version are left out.
[[nodiscard]] bool ReadTrackEvent(std::string_view record, TrackEvent* event);

const char* TrackFunctionName(TrackKind kind);
const char* TrackFieldName(TrackField field);
bool MayDescribeTheUser(TrackField field);

// Sensitive words masked, each byte that is no UTF-8 replaced by U+FFFD.
std::string ReadableText(std::string_view text);
