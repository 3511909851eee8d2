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

void CommonUtilService::ConvertJsonToUTPublicParam(const Json::Value& object,
                                                   commonutil::tagZelUtilPublicParam& record) {
  record = {};
  const auto read = [&](auto& field, const char* name) {
    GetJsonString(object, field, sizeof(field), name);
  };
  read(record.version, "version");
  read(record.deviceId, "deviceId");
  read(record.brand, "brand");
  read(record.deviceModel, "deviceModel");
  read(record.cpu, "cpu");
  read(record.resolution, "resolution");
  read(record.appId, "appId");
  read(record.language, "language");
  read(record.osName, "osName");
  read(record.osVersion, "osVersion");
  read(record.carrier, "carrier");
  read(record.access, "access");
  read(record.accessSubtype, "accessSubtype");
  read(record.tenantId, "tenantId");
  read(record.channelId, "channelId");
  read(record.gpu, "gpu");
}

void CommonUtilService::ConvertJsonToUTContextInfo(const Json::Value& object,
                                                   commonutil::tagZelUtilSpecialParam& record) {
  record = {};
  GetJsonString(object, record.eventId, sizeof(record.eventId), "eventId");
  GetJsonString(object, record.arg1, sizeof(record.arg1), "arg1");
  GetJsonString(object, record.arg2, sizeof(record.arg2), "arg2");
  GetJsonString(object, record.arg3, sizeof(record.arg3), "arg3");
  GetJsonString(object, record.args, sizeof(record.args), "args");
}

void CommonUtilService::ConvertJsonToUserInfo(const Json::Value& object,
                                              commonutil::tagZelUtilProxyInfo& record,
                                              std::string& serverURL) {
  record = {};
  GetJsonString(object, record.server, sizeof(record.server), key::kProxyServer);
  int port = 0;
  GetJsonInt(object, port, key::kProxyPort);
  record.port = static_cast<std::uint32_t>(port);
  GetJsonString(object, record.userName, sizeof(record.userName), key::kProxyAccount);
  GetJsonString(object, record.password, sizeof(record.password), key::kProxyPassword);
  GetJsonString(object, serverURL, key::kServerUrl);
}
