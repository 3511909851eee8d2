#include "util/StyledText.h"

#include <atomic>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "util/PublicUtil.h"

namespace {

using commonutil::StyledText;

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  return value;
}

std::vector<Json::Value> Samples() {
  std::vector<Json::Value> samples = {
      Json::Value(), Json::Value(Json::objectValue), Json::Value(Json::arrayValue),
      Json::Value(std::string(100000, 'x')), Json::Value(std::string("nul\0inside", 10))};
  for (const char* text :
       {R"({"rsp":11,"result":0,"sno":4294967295,"description":"a \"quoted\" \\ / text"})",
        R"([1,-1,0.1,1e300,-0.0,18446744073709551615,-9223372036854775808,true,false,null])",
        R"({"a":{"b":{"c":[[],{},[1,[2,{"d":"e"}]]]}},"":"","f":[{}]})",
        R"({"utf8":"\u00e4\u20ac\ud83d\ude00\u0001\n\t","\u00e4":["\u007f"]})",
        "// before\n{\"a\":1, // behind\n \"b\":[1, /* in */ 2]} // last"}) {
    samples.push_back(Parsed(text));
  }
  Json::Value longArray;
  for (int i = 0; i < 100; ++i) longArray.append("a long item of an array");
  samples.push_back(longArray);
  samples.emplace_back(std::numeric_limits<double>::infinity());
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

TEST(StyledTextTest, TwoTextsAtOnceAreApartAndAnEndedOneIsWiped) {
  const Json::Value secret("a text with a pass phrase");
  const char* memory = nullptr;
  {
    const StyledText first(secret);
    const StyledText second(Json::Value("other"));
    EXPECT_EQ(first.Text(), secret.toStyledString());
    EXPECT_EQ(second.Text(), "\"other\"\n");
  }
  {
    const StyledText again(secret);
    memory = again.Text().data();
  }
  const StyledText shorter(Json::Value("x"));
  ASSERT_EQ(shorter.Text().data(), memory);  // the thread kept it
  const std::string behind(memory + 5, secret.toStyledString().size() - 5);
  EXPECT_EQ(behind, std::string(behind.size(), '\0'));
}

TEST(StyledTextTest, ThreadsWriteAndParseIndependently) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([number, &wrong] {
      Json::Value value;
      value["number"] = number;
      const std::string expected = value.toStyledString();
      for (int i = 0; i < 500; ++i) {
        Json::Value read;
        const bool good = commonutil::PublicUtil::SafeParseJson(expected, read) && read == value;
        if (!good || StyledText(value).Text() != expected) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
