// A JSON value as text, with the bytes that Json::Value::toStyledString gives.
//
// To make a writer takes longer than to write a small message, so each thread keeps one, with the
// memory of its text. The text may hold a password: it is wiped with this object.
#pragma once

#include <memory>
#include <string>

#include <json/value.h>

namespace commonutil {

class StyledWriter;

class StyledText {
 public:
  // Throws without memory.
  explicit StyledText(const Json::Value& value);
  ~StyledText();
  StyledText(const StyledText&) = delete;
  StyledText& operator=(const StyledText&) = delete;

  // Until the end of this object.
  const std::string& Text() const;

 private:
  std::unique_ptr<StyledWriter> m_writer;
};

}  // namespace commonutil
