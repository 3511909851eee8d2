#include <memory>
#include <utility>

#include <json/reader.h>
#include <json/writer.h>

#include "util/Log.h"
#include "util/PublicUtil.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/util/PublicUtil";

using ReaderPtr = std::unique_ptr<Json::CharReader>;

// To make a reader takes as long as to parse a small message, so each thread keeps one. A
// reader holds on to the memory that its largest text took: after one beyond this it goes.
constexpr std::size_t kLargestTextOfKeptReader = std::size_t{64} * 1024;

// Code that runs while the thread's objects are being destroyed does without.
thread_local bool t_threadEnds = false;

struct KeptReader {
  ~KeptReader() { t_threadEnds = true; }
  ReaderPtr reader;
};
thread_local KeptReader t_kept;

ReaderPtr TakeReader() {
  if (!t_threadEnds && t_kept.reader) return std::move(t_kept.reader);
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;  // what is echoed of a request would bring them along
  return ReaderPtr(builder.newCharReader());
}

void KeepReader(ReaderPtr reader) {
  if (!t_threadEnds) t_kept.reader = std::move(reader);
}

using Parser = bool (*)(const char* text, std::size_t length, Json::Value& out);

// Throw what the parser throws.
bool ParseWithComments(const char* text, std::size_t length, Json::Value& out) {
  const ReaderPtr reader(Json::CharReaderBuilder().newCharReader());
  return reader->parse(text, text + length, &out, nullptr);
}

// A reader that failed is not used again.
bool ParseWithKeptReader(const char* text, std::size_t length, Json::Value& out) {
  ReaderPtr reader = TakeReader();
  if (!reader->parse(text, text + length, &out, nullptr)) return false;
  if (length <= kLargestTextOfKeptReader) KeepReader(std::move(reader));
  return true;
}

bool SafeParseJson(Parser parse, const char* text, std::size_t length, Json::Value& out) {
  if (length == 0) return false;
  try {
    if (parse(text, length, out) && (out.isObject() || out.isArray())) return true;
  } catch (...) {  // nested too deeply, or no memory
    ZEL_LOG(kError) << "parse json crash ";
    return false;
  }
  ZEL_LOG(kError) << "parse json error ";
  return false;
}

const Json::StreamWriterBuilder& OneLineWriter() {
  static const Json::StreamWriterBuilder* const builder = [] {
    auto* const made = new Json::StreamWriterBuilder;
    (*made)["indentation"] = "";
    return made;
  }();
  return *builder;
}

}  // namespace

std::string PublicUtil::Json2String(const Json::Value& value) {
  return Json::writeString(OneLineWriter(), value);
}

bool PublicUtil::SafeParseJson(const std::string& text, Json::Value& out) {
  return commonutil::SafeParseJson(ParseWithComments, text.data(), text.size(), out);
}

bool PublicUtil::SafeParseJson(const char* text, std::size_t length, Json::Value& out) {
  return commonutil::SafeParseJson(ParseWithKeptReader, text, length, out);
}

}  // namespace commonutil
