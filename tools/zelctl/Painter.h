// Messages as people like to read them: coloured, and folded to few lines.
#pragma once

#include <cstddef>
#include <string>

#include <json/value.h>

namespace zelctl {

enum class Colour { kKey, kText, kNumber, kWord, kGood, kBad, kEvent, kFaint };

// Whether output to `fd` is coloured when the user did not say: on a terminal that knows colours,
// unless NO_COLOR is set.
bool IsColourful(int fd);

class Painter {
 public:
  explicit Painter(bool isColourful) : m_isColourful(isColourful) {}

  std::string Paint(Colour colour, const std::string& text) const;
  // The message on one line, with the keys in the order in which they matter.
  std::string OneLine(const Json::Value& message) const;
  // At most `columns` wide: one line if it fits, else one a member. What is still too long is
  // folded to its beginning or its count, and `isFolded` set.
  std::string Folded(const Json::Value& message, std::size_t columns, bool& isFolded) const;
  // All of it, on as many lines as it takes.
  std::string Whole(const Json::Value& message) const;

 private:
  std::string Scalar(const Json::Value& value) const;
  std::string Key(const std::string& key) const;
  std::string Members(const Json::Value& object, std::size_t columns, std::size_t indent,
                      bool& isFolded) const;
  // `before`: what stands on the line already.
  std::string Member(const Json::Value& value, std::size_t columns, std::size_t before,
                     std::size_t indent, bool& isFolded) const;
  std::string WholeAt(const Json::Value& value, std::size_t indent) const;

  const bool m_isColourful;
};

}  // namespace zelctl
