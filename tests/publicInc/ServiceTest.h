// A service on the double of the platform, spoken to in JSON texts.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "publicInc/CommonUtilService.h"
#include "support/PlatformDouble.h"

namespace support {

inline Json::Value Parse(const std::string& text) {
  Json::Value root;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, nullptr)) << text;
  return root;
}

class ServiceTest : public testing::Test {
 protected:
  ServiceTest() { ResetPlatformDouble(); }

  void Post(std::string text) { EXPECT_EQ(m_service->ProcessRecvMsg(text.data()), 0); }

  // The next message for the host; null when there is none.
  Json::Value Next() {
    char* message = nullptr;
    if (m_service->PrimaryStore().SendMsgExport(&message) == 0) return Json::Value();
    const std::unique_ptr<char[]> owner(message);
    return Parse(message);
  }

  Json::Value Ask(const std::string& text) {
    Post(text);
    return Next();
  }

  const std::shared_ptr<CommonUtilService> m_service = std::make_shared<CommonUtilService>();
};

}  // namespace support
