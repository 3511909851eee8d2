#include "track/FileTransport.h"

#include <utility>

#include <json/json.h>

#include "logger/LogModules.h"

void FileTransport::Use(std::unique_ptr<LogFile> file) {
  const std::lock_guard<std::mutex> hold(m_lock);
  m_file.swap(file);
}

std::string FileTransport::Encode(const TrackEvent& event) const {
  Json::Value line(Json::objectValue);
  line["timeMs"] = static_cast<Json::Int64>(event.head.timeMs);
  line["sequence"] = static_cast<Json::UInt64>(event.head.sequence);
  line["session"] = TrackSessionText(event.head.session);
  line["function"] = TrackFunctionName(event.head.kind);
  for (const TrackEvent::Field& field : event.fields) {
    if (MayDescribeTheUser(field.field)) continue;
    Json::Value& value = line[TrackFieldName(field.field)];
    if (field.isText) {
      value = ReadableText(field.text);
    } else {
      value = static_cast<Json::Int64>(field.number);
    }
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, line) + "\n";
}

TrackAnswer FileTransport::Send(const std::vector<std::string>& batch) {
  const std::lock_guard<std::mutex> hold(m_lock);
  for (const std::string& line : batch) {
    if (m_file == nullptr || !m_file->Append(line, LogClockMs())) {
      return {TrackOutcome::kRetry, 0, "the event file cannot be written"};
    }
  }
  return {};
}
