#include "JsonText.h"

#include <exception>
#include <memory>

#include <json/reader.h>
#include <json/writer.h>

namespace zelctl {
namespace {

constexpr int kDepth = 4000;

}  // namespace

bool ParseJson(const std::string& text, Json::Value& root) {
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = kDepth;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
  } catch (const std::exception&) {
    return false;
  }
}

std::string OnOneLine(const Json::Value& message) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  return Json::writeString(builder, message);
}

}  // namespace zelctl
