#include "util/PublicUtil.h"

#include <cerrno>
#include <memory>

#include <gtest/gtest.h>
#include <json/reader.h>

#include "prax/prax_ref.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/SecureWipe.h"
#include "zel_platform/prax.h"

namespace commonutil {
namespace {

using Pieces = std::vector<std::string>;

class PublicUtilTest : public ::testing::Test {
 protected:
  PublicUtilTest() { support::ResetPlatformDouble(); }
};

TEST_F(PublicUtilTest, SplitKeepsEmptyPiecesExceptOneAtTheEndAndReplaceTakesOne) {
  EXPECT_EQ(PublicUtil::split("", ","), Pieces{});
  EXPECT_EQ(PublicUtil::split(",a,,b", ","), (Pieces{"", "a", "", "b"}));
  EXPECT_EQ(PublicUtil::split("a::b:c::", "::"), (Pieces{"a", "b:c"}));
  EXPECT_EQ(PublicUtil::split("a,b", ""), Pieces{"a,b"});
  EXPECT_EQ(PublicUtil::replaceFirst("a.com b.com", ".com", ".org"), "a.org b.com");
  EXPECT_EQ(PublicUtil::replaceFirst("abc", "d", "e"), "abc");
}

TEST_F(PublicUtilTest, IPv4NeedsFourOctetsAndNothingBehind) {
  for (const char* address :
       {"255.255.255.255", "0.0.0.0", "1.2.3.0004", " 1.2.3.4", "1. 2.3.4", "+1.2.3.4"}) {
    EXPECT_TRUE(PublicUtil::isIPv4(address)) << address;
  }
  for (const char* text : {"256.1.1.1", "1.2.3", "1.2.3.4x", "1.2.3.4\n", "1.2.3.4 x", "1.2.3.-4",
                           "1.2.3.4.5", "1,2,3,4", "001.002.003.0004"}) {
    EXPECT_FALSE(PublicUtil::isIPv4(text)) << text;
  }
  EXPECT_FALSE(PublicUtil::isIPv4("host"));
  EXPECT_FALSE(PublicUtil::isIPv4(""));
  EXPECT_EQ(support::LogTexts(),
            (Pieces{"secure func return err: 0", "secure func return err: -1"}));
}

TEST_F(PublicUtilTest, UrlEncodeEscapesAllButLettersDigitsAndMarks) {
  EXPECT_EQ(PublicUtil::urlEncode("AZaz09-_.!~*'()/"), "AZaz09-_.!~*'()/");
  EXPECT_EQ(PublicUtil::urlEncode(" \t\n\r\v\f"), "%20%20%20%20%20%20");
  EXPECT_EQ(PublicUtil::urlEncode("\xE4\xFF:%&=+?"), "%E4%FF%3A%25%26%3D%2B%3F");
  EXPECT_EQ(PublicUtil::urlEncode(std::string("\0\x01", 2)), "%00%01");
}

TEST_F(PublicUtilTest, WideTextsComeBackUnchangedAndOthersBecomeEmpty) {
  const std::string text("a\0\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z", 12);
  const std::wstring wide(L"a\0\x00E4\x20AC\x1F600z", 6);
  EXPECT_EQ(PublicUtil::UTF8ToWstring(text), wide);
  EXPECT_EQ(PublicUtil::WstringToUTF8(wide), text);
  for (const wchar_t edge : {0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFF, 0x10000, 0x10FFFF}) {
    const std::wstring one(1, edge);
    EXPECT_EQ(PublicUtil::UTF8ToWstring(PublicUtil::WstringToUTF8(one)), one);
  }
  for (const char* wrong :
       {"a\x80", "\xC3", "\xC3(", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xE2\x82",
        "\xF4\x90\x80\x80", "\xF0\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF"}) {
    EXPECT_EQ(PublicUtil::UTF8ToWstring(wrong), L"") << wrong;
  }
  for (const int wrong : {0xD800, 0x110000, -1}) {
    EXPECT_EQ(PublicUtil::WstringToUTF8(std::wstring(1, static_cast<wchar_t>(wrong))), "");
  }
}

TEST_F(PublicUtilTest, WipeGuardLeavesNoByteOfTheSecret) {
  std::string secret(200, 's');
  secret.resize(150);
  const char* const memory = secret.data();
  const std::size_t capacity = secret.capacity();
  { const WipeGuard wipe(secret); }
  EXPECT_TRUE(secret.empty());
  ASSERT_EQ(secret.data(), memory);
  EXPECT_EQ(std::string(memory, capacity), std::string(capacity, '\0'));
}

TEST_F(PublicUtilTest, ParsesObjectsAndArraysOnlyAndWritesOneLine) {
  Json::Value out;
  EXPECT_TRUE(PublicUtil::SafeParseJson(R"({"a":1,"a":["\u00e4",null],} trailing)", out));
  EXPECT_EQ(PublicUtil::Json2String(out), R"({"a":["\u00e4",null]})");
  EXPECT_FALSE(PublicUtil::SafeParseJson("", out));
  EXPECT_TRUE(support::LogTexts().empty());
  for (const char* text : {"\"text\"", "5", "null", "{\"a\":", "no json", " "}) {
    EXPECT_FALSE(PublicUtil::SafeParseJson(text, out)) << text;
  }
  EXPECT_EQ(support::CountLog("parse json error ", 0), 6);
  EXPECT_FALSE(PublicUtil::SafeParseJson(std::string(100000, '['), out));  // nested too deeply
  EXPECT_EQ(support::CountLog("parse json crash ", 0), 1);
}

// The reader of a thread is used for many texts: none may leave a trace in the next.
TEST_F(PublicUtilTest, EachTextIsParsedAsByANewReader) {
  const std::string texts[] = {"// before\n{\"a\":1} // behind",
                               "{\"b\":[1,{\"c\":2}]}",
                               "{\"a\":1 /* open",
                               "/* first */ [2]",
                               "{\"d\":[",
                               "[\"" + std::string(100000, 'x') + "\"] // kept no longer",
                               "{\"a\":" + std::string(2000, '[')};  // a new reader throws
  for (const std::string& first : texts) {
    for (const std::string& second : texts) {
      Json::Value parsed;
      (void)PublicUtil::SafeParseJson(first.data(), first.size(), parsed);
      parsed = Json::Value();
      const bool good = PublicUtil::SafeParseJson(second.data(), second.size(), parsed);
      if (&second == std::end(texts) - 1) continue;
      Json::Value expected;
      Json::CharReaderBuilder builder;
      builder["collectComments"] = false;
      const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
      EXPECT_EQ(good, reader->parse(&*second.begin(), &*second.end(), &expected, nullptr));
      EXPECT_EQ(parsed.toStyledString(), expected.toStyledString());
    }
  }
}

TEST_F(PublicUtilTest, ReadsAWholeFileOrNamesWhyThereIsNothingToRead) {
  const support::TempDir dir;
  const std::string content(100000, 'c');
  support::WriteWholeFile(dir.File("file"), content);
  support::WriteWholeFile(dir.File("empty"), "");
  char* buffer = nullptr;
  ASSERT_EQ(PublicUtil::UtilReadFile(dir.File("file"), &buffer), 0U);
  EXPECT_EQ(buffer, content);
  PRAX_MemFreeD(buffer);
  EXPECT_TRUE(support::LogTexts().empty());

  EXPECT_EQ(PublicUtil::UtilReadFile(dir.File("file"), nullptr), 1U);

  constexpr auto kNoFault = PRAX_REF_CALLS;
  const struct {
    std::string path;
    PRAX_Ref_Call fault;
    const char* line;
  } cases[] = {{"", kNoFault, "filePath is empty"},
               {dir.File("empty"), kNoFault, "uiFileSize:[0] is invalid!"},
               {dir.Path(), kNoFault, "read common config file failed"},
               {dir.File("missing"), kNoFault, "get file size failed! uiRet["},
               {dir.File("file"), PRAX_REF_MALLOC, "mem alloc[100000]bytes failed"},
               {dir.File("file"), PRAX_REF_FOPEN, "open config file failed"}};
  for (const auto& c : cases) {
    if (c.fault != kNoFault) PRAX_Ref_FailNext(c.fault, 1, EACCES);
    char unused = 0;
    buffer = &unused;
    EXPECT_EQ(PublicUtil::UtilReadFile(c.path, &buffer), 1U);
    EXPECT_EQ(buffer, nullptr) << c.line;
    EXPECT_EQ(support::CountLogPrefix(c.line, 0), 1) << c.line;
  }
}

}  // namespace
}  // namespace commonutil
