#include "track/TrackEvent.h"

#include <string.h>

#include <algorithm>
#include <iterator>

#include "logger/SensitiveWords.h"

namespace {

constexpr unsigned char kFormat = 1;
constexpr std::size_t kHeadBytes = 1 + 1 + 8 + 8 + sizeof(TrackSession);
constexpr std::size_t kFieldHeadBytes = 1 + 4;
constexpr std::size_t kNumberBytes = 8;
constexpr char kReplacement[] = "\xef\xbf\xbd";

constexpr const char* kFunctions[] = {"Track_AddUserTrack",
                                      "Track_FinishEvent",
                                      "Track_AddSubEvent",
                                      "Track_AddMediaTrack",
                                      "MediaTrack_AddDataConfDotData",
                                      "MediaTrack_SetCpuAndMemoryInfo",
                                      "Track_ErrorAnalyze",
                                      "Track_AddTraceApiLog",
                                      "track"};
static_assert(std::size(kFunctions) == static_cast<std::size_t>(TrackKind::kCount));

struct FieldInfo {
  const char* name;
  bool isText;
};

constexpr FieldInfo kFields[] = {{"eventId", true},
                                 {"arg1", true},
                                 {"arg2", true},
                                 {"arg3", true},
                                 {"args", true},
                                 {"param", false},
                                 {"index", true},
                                 {"flag", false},
                                 {"id", false},
                                 {"data", true},
                                 {"value0", false},
                                 {"value1", false},
                                 {"value2", false},
                                 {"text", true},
                                 {"type", true},
                                 {"first", false},
                                 {"second", false},
                                 {"startTimeMs", false},
                                 {"durationMs", false},
                                 {"subEvents", false},
                                 {"hasSubEvent", false},
                                 {"dropped", false},
                                 {"previousSession", true},
                                 {"previousSequence", false},
                                 {"uploadSwitch", false},
                                 {"version", true},
                                 {"deviceId", true},
                                 {"brand", true},
                                 {"deviceModel", true},
                                 {"cpu", true},
                                 {"resolution", true},
                                 {"appId", true},
                                 {"language", true},
                                 {"osName", true},
                                 {"osVersion", true},
                                 {"carrier", true},
                                 {"access", true},
                                 {"accessSubtype", true},
                                 {"sdkUuid", true},
                                 {"sdkAccount", true},
                                 {"sdkGantryIp", true},
                                 {"sdkSbcIp", true},
                                 {"sdkText4", true},
                                 {"sdkText5", true},
                                 {"sdkText6", true},
                                 {"sdkText7", true},
                                 {"sdkText8", true},
                                 {"sdkText9", true}};
static_assert(std::size(kFields) == static_cast<std::size_t>(TrackField::kCount));

void AppendNumber(std::uint64_t number, std::size_t bytes, std::string* out) {
  char little[kNumberBytes];
  for (std::size_t i = 0; i < bytes; ++i) little[i] = static_cast<char>(number >> (8 * i));
  out->append(little, bytes);
}

std::uint64_t NumberAt(std::string_view record, std::size_t offset, std::size_t bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes; i > 0; --i) {
    number = number << 8 | static_cast<unsigned char>(record[offset + i - 1]);
  }
  return number;
}

// Reads the field at `*offset` and steps over it. False when it does not end in the record.
bool NextField(std::string_view record, std::size_t* offset, std::size_t* number,
               std::string_view* bytes) {
  if (record.size() - *offset < kFieldHeadBytes) return false;
  *number = static_cast<unsigned char>(record[*offset]);
  const std::size_t length = NumberAt(record, *offset + 1, 4);
  *offset += kFieldHeadBytes;
  if (record.size() - *offset < length) return false;
  *bytes = record.substr(*offset, length);
  *offset += length;
  return true;
}

// The bytes of the valid UTF-8 sequence that `text` begins with, 0 when there is none.
std::size_t Utf8Length(std::string_view text) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = at(0);
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return 0;
  // The second byte also rules out overlong forms, surrogates and what is beyond U+10FFFF.
  const unsigned char lowest = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  const unsigned char highest = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  if (at(1) < lowest || at(1) > highest) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((at(i) & 0xc0) != 0x80) return 0;
  }
  return length;
}

std::string ValidUtf8(const std::string& text) {
  std::string valid;
  valid.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = Utf8Length(std::string_view(text).substr(i));
    valid.append(length == 0 ? kReplacement : text.data() + i, length == 0 ? 3 : length);
    i += std::max<std::size_t>(length, 1);
  }
  return valid;
}

}  // namespace

std::string TrackSessionText(const TrackSession& session) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < session.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kDigits[session[i] >> 4];
    text += kDigits[session[i] & 15];
  }
  return text;
}

TrackFields& TrackFields::Text(TrackField field, const char* text) {
  return Text(field, text, kLongestTrackRecord + 1);
}

TrackFields& TrackFields::Text(TrackField field, const char* text, std::size_t capacity) {
  if (text == nullptr) return *this;
  const std::size_t length = ::strnlen(text, std::min(capacity, kLongestTrackRecord + 1));
  if (m_bytes.size() + length > kLongestTrackRecord) {
    m_tooLong = true;
    return *this;
  }
  m_bytes += static_cast<char>(field);
  AppendNumber(length, 4, &m_bytes);
  m_bytes.append(text, length);
  return *this;
}

TrackFields& TrackFields::Number(TrackField field, std::int64_t number) {
  m_bytes += static_cast<char>(field);
  AppendNumber(kNumberBytes, 4, &m_bytes);
  AppendNumber(static_cast<std::uint64_t>(number), kNumberBytes, &m_bytes);
  return *this;
}

void AppendTrackHead(const TrackHead& head, std::string* record) {
  *record += static_cast<char>(kFormat);
  *record += static_cast<char>(head.kind);
  AppendNumber(static_cast<std::uint64_t>(head.timeMs), kNumberBytes, record);
  AppendNumber(head.sequence, kNumberBytes, record);
  record->append(reinterpret_cast<const char*>(head.session.data()), head.session.size());
}

const TrackEvent::Field* TrackEvent::Find(TrackField field) const {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const Field& each) { return each.field == field; });
  return found == fields.end() ? nullptr : &*found;
}

bool ReadTrackEvent(std::string_view record, TrackEvent* event) {
  if (record.size() < kHeadBytes || record[0] != static_cast<char>(kFormat)) return false;
  const auto kind = static_cast<unsigned char>(record[1]);
  if (kind >= std::size(kFunctions)) return false;
  event->head.kind = static_cast<TrackKind>(kind);
  event->head.timeMs = static_cast<std::int64_t>(NumberAt(record, 2, kNumberBytes));
  event->head.sequence = NumberAt(record, 10, kNumberBytes);
  ::memcpy(event->head.session.data(), record.data() + 18, sizeof(TrackSession));
  event->fields.clear();
  for (std::size_t offset = kHeadBytes; offset < record.size();) {
    std::size_t number = 0;
    std::string_view bytes;
    if (!NextField(record, &offset, &number, &bytes)) return false;
    if (number >= std::size(kFields)) continue;
    const bool isText = kFields[number].isText;
    if (!isText && bytes.size() != kNumberBytes) return false;
    event->fields.push_back(
        {static_cast<TrackField>(number), isText, isText ? bytes : std::string_view(),
         isText ? 0 : static_cast<std::int64_t>(NumberAt(bytes, 0, kNumberBytes))});
  }
  return true;
}

const char* TrackFunctionName(TrackKind kind) { return kFunctions[static_cast<std::size_t>(kind)]; }

const char* TrackFieldName(TrackField field) {
  return kFields[static_cast<std::size_t>(field)].name;
}

bool MayDescribeTheUser(TrackField field) { return field >= TrackField::kSdk; }

std::string ReadableText(std::string_view text) {
  std::string masked;
  SensitiveWords::Instance().AppendMasked(text, SensitiveWords::Controls::kKeep, &masked);
  return ValidUtf8(masked);
}
