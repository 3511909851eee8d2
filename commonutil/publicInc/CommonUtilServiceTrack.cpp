// The handlers that deal with user tracking.
#include <string>

#include "CommonUtil.h"
#include "publicInc/CommonUtilService.h"
#include "publicInc/MessageKeys.h"
#include "publicInc/ResultCode.h"
#include "util/Log.h"

namespace key = message_key;

using commonutil::CommonUtil;

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilService";

const Json::Value& Param(const Json::Value& request) { return request[key::kParam]; }

// Whether "param" is an object that has an object under `name`.
bool HasObject(const Json::Value& request, const char* name) {
  return Param(request).isObject() && Param(request)[name].isObject();
}

bool HasIndex(const Json::Value& request) {
  return Param(request).isObject() && Param(request)[key::kIndex].isString();
}

// 0 for anything that is neither a boolean nor an unsigned integer.
int SwitchValue(const Json::Value& value) {
  if (value.isBool()) return value.asBool() ? 1 : 0;
  return value.isUInt() ? static_cast<int>(value.asUInt()) : 0;
}

}  // namespace

void CommonUtilService::UTConfigPublicParam(Json::Value& request, const char* fallback) {
  int result = commonutil::kFailed;
  if (HasObject(request, key::kPublicParam)) {
    commonutil::tagZelUtilPublicParam record;
    ConvertJsonToUTPublicParam(Param(request)[key::kPublicParam], record);
    result = CommonUtil::getInst().UTConfigPublicParam(record);
  }
  _makeRetMsgAndSend(result, request, fallback);
}

void CommonUtilService::UTAddUserTrack(Json::Value& request, const char* fallback) {
  int result = commonutil::kFailed;
  if (HasObject(request, key::kContextParam)) {
    commonutil::tagZelUtilSpecialParam record;
    ConvertJsonToUTContextInfo(Param(request)[key::kContextParam], record);
    result = CommonUtil::getInst().UTAddUserTrack(record);
  }
  _makeRetMsgAndSend(result, request, fallback);
}

void CommonUtilService::UTStartEvent(Json::Value& request, const char* fallback) {
  int result = commonutil::kFailed;
  if (HasIndex(request)) {
    const std::string index = GetJsonString(Param(request), key::kIndex);
    result = CommonUtil::getInst().UTStartEvent(index.c_str(), index.size());
  }
  _makeRetMsgAndSend(result, request, fallback);
}

void CommonUtilService::UTFinishEvent(Json::Value& request, const char* fallback) {
  int result = commonutil::kFailed;
  if (HasObject(request, key::kContextParam) && HasIndex(request)) {
    commonutil::tagZelUtilSpecialParam record;
    ConvertJsonToUTContextInfo(Param(request)[key::kContextParam], record);
    const std::string index = GetJsonString(Param(request), key::kIndex);
    result = CommonUtil::getInst().UTFinishEvent(index.c_str(), index.size(), record);
  }
  _makeRetMsgAndSend(result, request, fallback);
}

// The answer does not depend on the tracking library.
void CommonUtilService::UTConfigCustomParam(Json::Value& request, const char* fallback) {
  const int value = SwitchValue(Param(request)[key::kCustomParam][key::kUploadSwitch]);
  ZEL_LOG(kInfo) << "uploadSwitch value is: " << value;
  (void)CommonUtil::getInst().UTConfigCustomParam({value, {0, 0}});
  _makeRetMsgAndSend(commonutil::kOk, request, fallback);
}
