#include "util/StyledText.h"

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "util/PublicUtil.h"

namespace {

using commonutil::PublicUtil;
using commonutil::StyledText;

std::vector<Json::Value> Samples() {
  std::vector<Json::Value> samples = {Json::Value(),
                                      Json::Value(Json::objectValue),
                                      Json::Value(Json::arrayValue),
                                      Json::Value(std::string(100000, 'x')),
                                      Json::Value(std::string("nul\0inside", 10)),
                                      Json::Value(std::numeric_limits<double>::infinity())};
  for (const char* text :
       {R"({"rsp":11,"result":0,"sno":4294967295,"description":"a \"quoted\" \\ / text"})",
        R"([1,-1,0.1,1e300,-0.0,18446744073709551615,-9223372036854775808,true,false,null])",
        R"({"a":{"b":{"c":[[],{},[1,[2,{"d":"e"}]]]}},"":"","f":[{}]})",
        R"({"utf8":"\u00e4\u20ac\ud83d\ude00\u0001\n\t","\u00e4":["\u007f"]})",
        "// before\n{\"a\":1, // behind\n \"b\":[1, /* in */ 2]} // last"}) {
    EXPECT_TRUE(PublicUtil::SafeParseJson(text, samples.emplace_back()));
  }
  Json::Value& longArray = samples.emplace_back();
  for (int i = 0; i < 100; ++i) longArray.append("a long item of an array");
  return samples;
}

// The writer of a thread is used for many texts: none may leave a trace in the next.
TEST(StyledTextTest, EachTextIsThatOfANewWriter) {
  for (const Json::Value& first : Samples()) {
    for (const Json::Value& second : Samples()) {
      { const StyledText ignored(first); }
      ASSERT_EQ(StyledText(second).Text(), second.toStyledString());
    }
  }
}

TEST(StyledTextTest, NeitherTheItemsOfAnArrayNorTheMemoryOfALargeTextIsKept) {
  const Json::Value text(std::string(2000, 'x'));
  Json::Value array;
  array.append(text);
  for (const auto& [value, isKept] :
       {std::pair(array, false), {text, true}, {Json::Value(std::string(100000, 'x')), false}}) {
    { const StyledText ended(value); }
    EXPECT_EQ(StyledText(Json::Value()).Text().capacity() >= 2000, isKept) << isKept;
  }
}

TEST(StyledTextTest, TwoTextsAtOnceAreApartAndAnEndedOneIsWiped) {
  const Json::Value secret("a text with a pass phrase");
  const char* memory = nullptr;
  {
    const StyledText first(secret);
    memory = first.Text().data();
    EXPECT_EQ(StyledText(Json::Value("other")).Text(), "\"other\"\n");
    EXPECT_EQ(first.Text(), secret.toStyledString());
  }
  const StyledText shorter(Json::Value("x"));
  ASSERT_EQ(shorter.Text().data(), memory);  // the thread kept it
  const std::string behind(memory + 5, secret.toStyledString().size() - 5);
  EXPECT_EQ(behind, std::string(behind.size(), '\0'));
}

}  // namespace
