// Turns one request into one call of the facade and answers it.
#pragma once

#include <string>

#include <json/value.h>

#include "publicInc/CommonUtilData.h"
#include "publicInc/CommonUtilNotify.h"

class CommonUtilService : public CommonUtilNotify {
 public:
  ~CommonUtilService() override;

  // Handles one NUL-terminated request on the calling thread. Text that is no JSON object with
  // an unsigned "cmd", and numbers without a handler, are ignored without a reply. Returns
  // 0. Exceptions that are no std::exception pass through.
  int ProcessRecvMsg(char* message) override;
  char* ProcessCallFuncMsg(Json::Value& request) override;

 private:
  using Handler = void (CommonUtilService::*)(Json::Value& request, const char* fallback);
  struct Command {
    unsigned int number;
    Handler handler;       // null: ignored without a reply
    const char* fallback;  // the reply's "description" when the request brings none
  };
  static const Command kCommands[];

  // The row to run, or null for a request that is to be ignored.
  static const Command* FindCommand(const Json::Value& request);
  void RunCommand(const Command& command, Json::Value& request);

  // Handlers, one a command.
  void InitCommonUtil(Json::Value& request, const char* fallback);
  void GetRegInfo(Json::Value& request, const char* fallback);
  void SetAutoStart(Json::Value& request, const char* fallback);
  void GetAutoStart(Json::Value& request, const char* fallback);
  void GetWindowsCountryOrRegion(Json::Value& request, const char* fallback);

  // The registry commands of other platforms: logged and answered with success.
  void ReplyWithoutAction(const char* command, const Json::Value& request);

  // Key readers. A missing key, or a value of another type, leaves the destination as it is. A
  // text that does not fit leaves it empty. `object` must be an object or null: anything
  // else throws Json::Exception, which becomes the error reply.
  void GetJsonString(const Json::Value& object, char* destination, unsigned int size,
                     std::string key);
  void GetJsonString(const Json::Value& object, std::string& destination, std::string key);
  std::string GetJsonString(const Json::Value& object, std::string key);
  void GetJsonInt(const Json::Value& object, int& destination, std::string key);

  // Zeroes the record, then fills what the object has.
  void ConvertJsonToInitParam(const Json::Value& object, commonutil::tagZelUtilInitParam& record);
};

namespace commonutil {
using ::CommonUtilNotify;
using ::CommonUtilOrbService;
using ::CommonUtilService;
}  // namespace commonutil
