#include "publicInc/CommonUtilService.h"
#include "publicInc/MessageKeys.h"
#include "util/Log.h"
#include "zel_platform/securec.h"

namespace key = message_key;

namespace {

constexpr char kLogFile[] = "commonutil/publicInc/CommonUtilService";

}  // namespace

void CommonUtilService::GetJsonString(const Json::Value& object, char* destination,
                                      unsigned int size, std::string key) {
  const Json::Value& value = object[key];
  if (!value.isString()) return;
  const char* const text = value.asCString();
  if (text == nullptr) {
    ZEL_LOG(kError) << "params[key].asCString() is NULL";
    return;
  }
  const errno_t error = strcpy_s(destination, size, text);
  // One text for all records: log readers look for it.
  if (error != 0) ZEL_LOG(kError) << "ConvertJsonToUTContextInfo error, ret = " << error;
}

void CommonUtilService::GetJsonString(const Json::Value& object, std::string& destination,
                                      std::string key) {
  const Json::Value& value = object[key];
  if (value.isString()) destination = value.asString();
}

std::string CommonUtilService::GetJsonString(const Json::Value& object, std::string key) {
  std::string text;
  GetJsonString(object, text, std::move(key));
  return text;
}

void CommonUtilService::GetJsonInt(const Json::Value& object, int& destination, std::string key) {
  const Json::Value& value = object[key];
  if (value.isInt()) destination = value.asInt();
}

void CommonUtilService::ConvertJsonToInitParam(const Json::Value& object,
                                               commonutil::tagZelUtilInitParam& record) {
  record = {};
  GetJsonString(object, record.logPath, sizeof(record.logPath), key::kLogPath);
  GetJsonInt(object, record.logLevel, key::kLogLevel);
  GetJsonInt(object, record.logSize, key::kLogSize);
  GetJsonInt(object, record.fileCount, key::kFileCount);
  GetJsonString(object, record.dbPath, sizeof(record.dbPath), key::kDbPath);
}
