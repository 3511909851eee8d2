#include "util/PublicUtil.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include <gtest/gtest.h>
#include <json/reader.h>

#include "prax/prax_ref.h"
#include "support/PlatformDouble.h"
#include "support/TempDir.h"
#include "util/SecureWipe.h"
#include "zel_platform/prax.h"

namespace commonutil {
namespace {

constexpr int kErrorLevel = 0;

using Pieces = std::vector<std::string>;

class PublicUtilTest : public ::testing::Test {
 protected:
  void SetUp() override { support::ResetPlatformDouble(); }
  void TearDown() override { support::ResetPlatformDouble(); }
};

TEST_F(PublicUtilTest, SplitKeepsEmptyPiecesExceptOneAtTheEndAndReplaceTakesOne) {
  EXPECT_EQ(PublicUtil::split("", ","), Pieces{});
  EXPECT_EQ(PublicUtil::split(",", ","), Pieces{""});
  EXPECT_EQ(PublicUtil::split(",a,,b", ","), (Pieces{"", "a", "", "b"}));
  EXPECT_EQ(PublicUtil::split("a::b:c::", "::"), (Pieces{"a", "b:c"}));
  EXPECT_EQ(PublicUtil::split("a,b", ""), Pieces{"a,b"});
  EXPECT_EQ(PublicUtil::replaceFirst("a.com b.com", ".com", ".org"), "a.org b.com");
  EXPECT_EQ(PublicUtil::replaceFirst("abc", "d", "e"), "abc");
}

TEST_F(PublicUtilTest, IPv4NeedsFourOctetsAndNothingBehind) {
  for (const char* address : {"255.255.255.255", "0.0.0.0", "1.2.3.4", "1.2.3.0004", " 1.2.3.4",
                              "1. 2.3.4", "+1.2.3.4", "-0.1.2.3"}) {
    EXPECT_TRUE(PublicUtil::isIPv4(address)) << address;
  }
  for (const char* text : {"256.1.1.1", "1.2.3", "1.2.3.4x", "1.2.3.4 ", "1.2.3.4\n", "1.2.3.4 x",
                           "1.2.3.-4", "1.2.3.4.5", "1,2,3,4", "001.002.003.0004"}) {
    EXPECT_FALSE(PublicUtil::isIPv4(text)) << text;
  }
  EXPECT_TRUE(support::LogTexts().empty());
  EXPECT_FALSE(PublicUtil::isIPv4("host"));
  EXPECT_EQ(support::CountLog("secure func return err: 0", kErrorLevel), 1);
  EXPECT_FALSE(PublicUtil::isIPv4(""));
  EXPECT_EQ(support::CountLog("secure func return err: -1", kErrorLevel), 1);
}

TEST_F(PublicUtilTest, UrlEncodeEscapesAllButLettersDigitsAndMarks) {
  EXPECT_EQ(PublicUtil::urlEncode("a b/c?"), "a%20b/c%3F");
  EXPECT_EQ(PublicUtil::urlEncode("AZaz09-_.!~*'()/"), "AZaz09-_.!~*'()/");
  EXPECT_EQ(PublicUtil::urlEncode(" \t\n\r\v\f"), "%20%20%20%20%20%20");
  EXPECT_EQ(PublicUtil::urlEncode("\xE4\xFF:%&=+"), "%E4%FF%3A%25%26%3D%2B");
  EXPECT_EQ(PublicUtil::urlEncode(std::string("\0\x01", 2)), "%00%01");
}

TEST_F(PublicUtilTest, WideTextsComeBackUnchanged) {
  const std::string text("a\0\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z", 12);
  const std::wstring wide(L"a\0\x00E4\x20AC\x1F600z", 6);
  EXPECT_EQ(PublicUtil::UTF8ToWstring(text), wide);
  EXPECT_EQ(PublicUtil::WstringToUTF8(wide), text);
  for (const wchar_t edge : {0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFF, 0x10000, 0x10FFFF}) {
    const std::wstring one(1, edge);
    EXPECT_EQ(PublicUtil::UTF8ToWstring(PublicUtil::WstringToUTF8(one)), one);
  }
}

TEST_F(PublicUtilTest, TextsThatCannotBeConvertedBecomeEmpty) {
  for (const char* text :
       {"a\x80", "\xC3", "\xC3(", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xE2\x82",
        "\xF4\x90\x80\x80", "\xF0\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF"}) {
    EXPECT_EQ(PublicUtil::UTF8ToWstring(text), L"") << text;
  }
  EXPECT_EQ(PublicUtil::WstringToUTF8(std::wstring(1, static_cast<wchar_t>(0xD800))), "");
  EXPECT_EQ(PublicUtil::WstringToUTF8(std::wstring(1, static_cast<wchar_t>(0x110000))), "");
  EXPECT_EQ(PublicUtil::WstringToUTF8(std::wstring(1, static_cast<wchar_t>(-1))), "");
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

// What a reader made for this one text says of it.
bool ParseWithNewReader(const std::string& text, Json::Value& out) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  return reader->parse(text.data(), text.data() + text.size(), &out, nullptr);
}
TEST_F(PublicUtilTest, ParsesObjectsAndArraysOnlyAndWritesOneLine) {
  Json::Value out;
  EXPECT_TRUE(PublicUtil::SafeParseJson("[]", out));
  EXPECT_TRUE(PublicUtil::SafeParseJson(R"({"a":1,"a":["\u00e4",null],} trailing)", out));
  EXPECT_EQ(PublicUtil::Json2String(out), R"({"a":["\u00e4",null]})");
  EXPECT_FALSE(PublicUtil::SafeParseJson("", out));
  EXPECT_TRUE(support::LogTexts().empty());

  for (const char* text : {"\"text\"", "5", "null", "{\"a\":", "no json", "[1,2", " "}) {
    support::ClearLog();
    EXPECT_FALSE(PublicUtil::SafeParseJson(text, out)) << text;
    EXPECT_EQ(support::CountLog("parse json error ", kErrorLevel), 1) << text;
  }
  EXPECT_FALSE(PublicUtil::SafeParseJson(std::string(100000, '['), out));  // nested too deeply
  EXPECT_EQ(support::CountLog("parse json crash ", kErrorLevel), 1);
  EXPECT_TRUE(PublicUtil::SafeParseJson("[7]", out));
  EXPECT_EQ(out[0].asInt(), 7);
}

// The reader of a thread is used for many texts: none may leave a trace in the next.
TEST_F(PublicUtilTest, EachTextIsParsedAsByANewReader) {
  const std::string tooDeep = "{\"a\":" + std::string(2000, '[');
  const std::string large = "[\"" + std::string(100000, 'x') + "\"] // kept no longer";
  const std::string texts[] = {"// before\n{\"a\":1} // behind",
                               "{\"b\":[1,{\"c\":2}]}",
                               "{\"a\":1 /* open",
                               "/* first */ [2]",
                               tooDeep,
                               "{\"d\":[",
                               large};
  for (const std::string& first : texts) {
    for (const std::string& second : texts) {
      Json::Value ignored;
      (void)PublicUtil::SafeParseJson(first, ignored);
      Json::Value parsed;
      Json::Value expected;
      const bool good = PublicUtil::SafeParseJson(second, parsed);
      if (second == tooDeep) continue;  // a new reader throws
      EXPECT_EQ(good, ParseWithNewReader(second, expected));
      EXPECT_EQ(parsed.toStyledString(), expected.toStyledString());  // with the comments
    }
  }
}

class ReadFileTest : public PublicUtilTest {
 protected:
  // Reads `path`; "(failed)" when that fails and leaves no buffer.
  static std::string Read(const std::string& path) {
    char unused = 0;
    char* buffer = &unused;
    if (PublicUtil::UtilReadFile(path, &buffer) != 0) return buffer ? "(buffer left)" : "(failed)";
    const std::string text(buffer);
    PRAX_MemFreeD(buffer);
    return text;
  }

  std::string FileWith(const std::string& content) {
    support::WriteWholeFile(m_dir.File("file"), content);
    return m_dir.File("file");
  }

  const support::TempDir m_dir;
};

TEST_F(ReadFileTest, GivesTheWholeContentEndedByANul) {
  const std::string content(100000, 'c');
  EXPECT_EQ(Read(FileWith(content)), content);
  EXPECT_EQ(Read(FileWith("x")), "x");
  EXPECT_TRUE(support::LogTexts().empty());
}

TEST_F(ReadFileTest, NamesWhyThereIsNothingToRead) {
  EXPECT_EQ(Read(""), "(failed)");
  EXPECT_EQ(support::CountLog("filePath is empty", kErrorLevel), 1);
  EXPECT_EQ(Read(FileWith("")), "(failed)");
  EXPECT_EQ(support::CountLog("uiFileSize:[0] is invalid!", kErrorLevel), 1);
  EXPECT_EQ(Read(m_dir.Path()), "(failed)");
  EXPECT_EQ(support::CountLog("read common config file failed", kErrorLevel), 1);
  EXPECT_EQ(Read(m_dir.File("missing")), "(failed)");
  EXPECT_EQ(support::CountLogPrefix("get file size failed! uiRet[", kErrorLevel), 1);
  const auto texts = support::LogTexts();
  ASSERT_FALSE(texts.empty());
  EXPECT_NE(texts.back().find("] lasterror[2]"), std::string::npos);  // ENOENT
}

TEST_F(ReadFileTest, FailingMemoryAndFailingOpenLeaveNoBuffer) {
  const std::string path = FileWith("content");
  PRAX_Ref_FailNext(PRAX_REF_MALLOC, 1, ENOMEM);
  EXPECT_EQ(Read(path), "(failed)");
  EXPECT_EQ(support::CountLog("mem alloc[7]bytes failed", kErrorLevel), 1);
  PRAX_Ref_FailNext(PRAX_REF_FOPEN, 1, EACCES);
  EXPECT_EQ(Read(path), "(failed)");
  EXPECT_EQ(support::CountLog("open config file failed", kErrorLevel), 1);
  EXPECT_EQ(Read(path), "content");
}

}  // namespace
}  // namespace commonutil
