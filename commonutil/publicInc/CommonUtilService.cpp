#include "publicInc/CommonUtilService.h"

#include <cstring>
#include <iterator>

#include "CommonUtil.h"
#include "publicInc/JsonAccess.h"
#include "publicInc/MessageKeys.h"
#include "publicInc/ResultCode.h"
#include "util/Log.h"
#include "util/PublicUtil.h"

namespace key = message_key;

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilService";
// Bits 0 to 15 and bit 17: a number with bit 17 set is never a command, any other high bit is
// not looked at. Wanted: hosts mark their requests in the high bits.
constexpr unsigned int kCommandMask = 0x2FFFF;
constexpr unsigned int kFirstCommand = 1;
constexpr unsigned int kLastCommand = 33;

}  // namespace

// Indexed by the number.
const CommonUtilService::Command CommonUtilService::kCommands[] = {
    {0, nullptr, nullptr},
    {1, &CommonUtilService::InitCommonUtil, "orb_commonutil_init"},
    {2, &CommonUtilService::UTConfigPublicParam, "orb_ut_config_public_param"},
    {3, &CommonUtilService::UTAddUserTrack, "orb_ut_add_usertrack"},
    {4, &CommonUtilService::UTStartEvent, "orb_ut_start_event"},
    {5, &CommonUtilService::UTFinishEvent, "orb_ut_end_event"},
    {6, &CommonUtilService::SetUserInfo, nullptr},
    {7, &CommonUtilService::GetProxy, nullptr},
    {8, &CommonUtilService::NetworkChange, nullptr},
    {9, &CommonUtilService::UTConfigCustomParam, "orb_commonutil_config_custom_param"},
    {10, nullptr, nullptr},
    {11, &CommonUtilService::GetRegInfo, nullptr},
    {12, &CommonUtilService::SetAutoStart, nullptr},
    {13, &CommonUtilService::GetAutoStart, nullptr},
    {14, &CommonUtilService::SetNetDetectSrvs, "SetNetDetectSrvs"},
    {15, &CommonUtilService::SetHttpProxy, nullptr},
    {16, &CommonUtilService::NetDetect, "NetDetect"},
    {17, nullptr, nullptr},
    {18, &CommonUtilService::GetWindowsCountryOrRegion, nullptr},
};

CommonUtilService::~CommonUtilService() { LeaveFacade(); }

int CommonUtilService::ProcessRecvMsg(char* message) {
  Json::Value request;
  if (!commonutil::PublicUtil::SafeParseJson(message, std::strlen(message), request)) {
    return commonutil::kOk;
  }
  if (const Command* command = FindCommand(request)) RunCommand(*command, request);
  return commonutil::kOk;
}

char* CommonUtilService::ProcessCallFuncMsg(Json::Value& request) {
  m_repliesToSecondary.store(true);
  const Command* const command = FindCommand(request);
  if (command == nullptr) return nullptr;
  RunCommand(*command, request);
  char* reply = nullptr;
  (void)m_secondary.SendMsgExport(&reply);  // null when the handler composed none
  return reply;
}

const CommonUtilService::Command* CommonUtilService::FindCommand(const Json::Value& request) {
  if (!request.isObject()) return nullptr;
  const Json::Value& value = request[key::kCmd];
  if (!value.isUInt()) return nullptr;
  const unsigned int number = value.asUInt() & kCommandMask;
  if (number < kFirstCommand || number > kLastCommand) return nullptr;
  if (number >= std::size(kCommands) || kCommands[number].handler == nullptr) return nullptr;
  return &kCommands[number];
}

void CommonUtilService::RunCommand(const Command& command, Json::Value& request) {
  try {
    (this->*command.handler)(request, command.fallback);
  } catch (const std::exception& error) {
    _processInputJsonException(error, request);
  }
}

void CommonUtilService::InitCommonUtil(Json::Value& request, const char* fallback) {
  int result = commonutil::kFailed;
  const Json::Value& param = AsConst(request)[key::kParam];
  if (param.isObject() && param[key::kInitParam].isObject()) {
    commonutil::tagZelUtilInitParam record;
    ConvertJsonToInitParam(param[key::kInitParam], record);
    result = commonutil::CommonUtil::getInst().InitCommonUtil(record, this);
  }
  _makeRetMsgAndSend(result, request, fallback);
}

void CommonUtilService::GetRegInfo(Json::Value& request, const char*) {
  ReplyWithoutAction("GetRegInfo", request);
}

void CommonUtilService::SetAutoStart(Json::Value& request, const char*) {
  ReplyWithoutAction("SetAutoStart", request);
}

void CommonUtilService::GetAutoStart(Json::Value& request, const char*) {
  ReplyWithoutAction("GetAutoStart", request);
}

void CommonUtilService::GetWindowsCountryOrRegion(Json::Value&, const char*) {}

void CommonUtilService::ReplyWithoutAction(const char* command, const Json::Value& request) {
  const Json::Value& description = request[key::kDescription];
  ZEL_LOG_DATA(kInfo) << command << " " << (description.isString() ? description.asCString() : "")
                      << ", cmd" << request[key::kCmd].asUInt() << ", sno"
                      << UnsignedOrZero(request[key::kSno]);
  SendReply(ComposeReply(commonutil::kOk, request, nullptr));
}
