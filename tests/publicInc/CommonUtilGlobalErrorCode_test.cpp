#include "publicInc/CommonUtilGlobalErrorCode.h"

#include <climits>
#include <cstdint>
#include <set>

#include <gtest/gtest.h>

#include "CommonUtil.h"
#include "publicInc/GlobalErrorCodeTable.h"
#include "support/PlatformDouble.h"

namespace commonutil {
namespace {

TEST(GlobalErrorCodeTest, KnowsTheCodesOfTheTableAndReturnsOthersWithALine) {
  support::ClearLog();
  std::set<std::int32_t> codes;
  for (const GlobalErrorCodeRow& row : kGlobalErrorCodeRows) {
    codes.insert(row.code);
    EXPECT_EQ(CommonUtil::getInst().GetGlobalErrorCode(row.code), row.code);
  }
  EXPECT_TRUE(support::LogTexts().empty());
  EXPECT_EQ(std::size(kGlobalErrorCodeRows), 1231U);
  EXPECT_EQ(codes.size(), 1230U);
  // Of the codes as they were agreed on with the other libraries: finds a mistyped one.
  std::uint32_t checksum = 0;
  for (const std::int32_t code : codes) checksum = checksum * 31 + static_cast<std::uint32_t>(code);
  EXPECT_EQ(checksum, 4118372425U);

  for (const int code : {123, -1, INT_MIN, INT_MAX, 10000, 415000003}) {
    EXPECT_EQ(CommonUtil::getInst().GetGlobalErrorCode(code), code);
    EXPECT_EQ(support::CountLog("unkown errCode: " + std::to_string(code), 2), 1) << code;
  }
}

}  // namespace
}  // namespace commonutil
