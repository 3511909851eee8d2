// A service on the double of the platform, spoken to in JSON texts.
#pragma once

#include <cstdlib>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>
#include <json/json.h>

#include "publicInc/CommonUtilService.h"
#include "support/PlatformDouble.h"
#include "util/PublicUtil.h"

namespace support {

// Adds a message to the file that ZEL_MESSAGE_LOG names, if any: one line each, for checks of all
// that was sent.
inline void LogMessage(const Json::Value& message) {
  const char* const path = std::getenv("ZEL_MESSAGE_LOG");
  if (path == nullptr) return;
  std::ofstream(path, std::ios::app) << commonutil::PublicUtil::Json2String(message) << '\n';
}

inline Json::Value Parse(const std::string& text) {
  Json::Value root;
  EXPECT_TRUE(commonutil::PublicUtil::SafeParseJson(text, root)) << text;
  return root;
}

class ServiceTest : public testing::Test {
 protected:
  explicit ServiceTest(
      std::shared_ptr<CommonUtilService> service = std::make_shared<CommonUtilService>())
      : m_service(std::move(service)) {
    ResetPlatformDouble();
  }

  void Post(std::string text) { EXPECT_EQ(m_service->ProcessRecvMsg(text.data()), 0); }

  // The next message for the host; null when there is none.
  Json::Value Next() {
    char* message = nullptr;
    if (m_service->PrimaryStore().SendMsgExport(&message) == 0) return Json::Value();
    const std::unique_ptr<char[]> owner(message);
    const Json::Value parsed = Parse(message);
    LogMessage(parsed);
    return parsed;
  }

  Json::Value Ask(const std::string& text) {
    Post(text);
    return Next();
  }
  int Result(const std::string& text) { return Ask(text)["result"].asInt(); }

  // No line of the log may tell it.
  static void ExpectNotLogged(const std::string& secret) {
    for (const std::string& line : LogTexts()) {
      EXPECT_EQ(line.find(secret), std::string::npos) << line;
    }
  }

  const std::shared_ptr<CommonUtilService> m_service;
};

}  // namespace support
