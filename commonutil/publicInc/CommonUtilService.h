// Turns one request into one call of the facade and answers it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <json/value.h>

#include "publicInc/CommonUtilData.h"
#include "publicInc/CommonUtilNotify.h"
#include "publicInc/CommonUtilTrackData.h"
#include "publicInc/ZelExport.h"

struct tagNET_DETECT_PROCESS_RESULT;
struct tagFW_MULTI_DETECT_INFO;
struct tagBW_MULTI_SITE_DETECT_RESULT;
struct tagOPT_MULTI_DETECT_INFO;

// Owned by a shared pointer wherever answers come later: those find it through a weak one.
class CommonUtilService : public CommonUtilNotify,
                          public std::enable_shared_from_this<CommonUtilService> {
 public:
  ~CommonUtilService() override;

  // Handles one NUL-terminated request on the calling thread. Text that is no JSON object with
  // an unsigned "cmd", and numbers without a handler, are ignored without a reply. Returns
  // 0. Exceptions that are no std::exception pass through.
  int ProcessRecvMsg(char* message) override;
  char* ProcessCallFuncMsg(Json::Value& request) override;

  // Compose and send the reply to a request for the proxy once it is known. Any thread.
  void GetProxyRetProc(Json::Value& request, const commonutil::ProxyInfo& proxy);
  void NetworkChangeRetProc(Json::Value& request, const commonutil::ProxyInfo& proxy);

  // What the network tools call with their results (records of zel_platform/nettools.h), on their
  // threads. Each becomes one notification of the process's service; without a service it is
  // dropped. Exported, so that a host can register them.
  ZEL_API static void onNotifyNetDetectResult(const tagNET_DETECT_PROCESS_RESULT* result);
  // `report` is a tagPORT_DETECT_RESULT.
  ZEL_API static void onNotifyPortDetectResult(const void* report);
  // Of seven entries; any other number is ignored.
  ZEL_API static void onNotifyFwDetect(unsigned int id, unsigned int result, unsigned int flag,
                                       std::vector<tagFW_MULTI_DETECT_INFO> entries);
  // A non-zero `result` is sent as it is and alone.
  ZEL_API static void onNotifySiteDetect(unsigned int id, unsigned int result, unsigned int flag,
                                         std::vector<tagBW_MULTI_SITE_DETECT_RESULT> sites);
  // `preference` 0: the sites are the preferred ones.
  ZEL_API static void onNotifyOptSiteDetect(unsigned int id, unsigned int result,
                                            unsigned int preference,
                                            std::vector<tagOPT_MULTI_DETECT_INFO> sites);
  // The index of a site of the highest rank. The list is not empty.
  static unsigned short getPrioritySite(std::vector<tagBW_MULTI_SITE_DETECT_RESULT>& sites);

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
  void UTConfigPublicParam(Json::Value& request, const char* fallback);
  void UTAddUserTrack(Json::Value& request, const char* fallback);
  void UTStartEvent(Json::Value& request, const char* fallback);
  void UTFinishEvent(Json::Value& request, const char* fallback);
  void SetUserInfo(Json::Value& request, const char* fallback);
  void GetProxy(Json::Value& request, const char* fallback);
  void NetworkChange(Json::Value& request, const char* fallback);
  void UTConfigCustomParam(Json::Value& request, const char* fallback);
  void GetRegInfo(Json::Value& request, const char* fallback);
  void SetAutoStart(Json::Value& request, const char* fallback);
  void GetAutoStart(Json::Value& request, const char* fallback);
  void SetNetDetectSrvs(Json::Value& request, const char* fallback);
  void SetHttpProxy(Json::Value& request, const char* fallback);
  void NetDetect(Json::Value& request, const char* fallback);
  void GetWindowsCountryOrRegion(Json::Value& request, const char* fallback);

  // The registry commands of other platforms: logged and answered with success.
  void ReplyWithoutAction(const char* command, const Json::Value& request);
  void SendProxyReply(const char* logText, const Json::Value& request,
                      const commonutil::ProxyInfo& proxy);

  // Key readers. A missing key, or a value of another type, leaves the destination as it is. A
  // text that does not fit leaves it empty. `object` must be an object or null: anything
  // else throws Json::Exception, which becomes the error reply.
  void GetJsonString(const Json::Value& object, char* destination, unsigned int size,
                     std::string key);
  void GetJsonString(const Json::Value& object, std::string& destination, std::string key);
  std::string GetJsonString(const Json::Value& object, std::string key);
  void GetJsonInt(const Json::Value& object, int& destination, std::string key);

  // Each zeroes the record, then fills what the object has.
  void ConvertJsonToInitParam(const Json::Value& object, commonutil::tagZelUtilInitParam& record);
  void ConvertJsonToUTPublicParam(const Json::Value& object,
                                  commonutil::tagZelUtilPublicParam& record);
  void ConvertJsonToUTContextInfo(const Json::Value& object,
                                  commonutil::tagZelUtilSpecialParam& record);
  // The caller wipes the record: it holds the password.
  void ConvertJsonToUserInfo(const Json::Value& object, commonutil::tagZelUtilProxyInfo& record,
                             std::string& serverURL);
};

namespace commonutil {
using ::CommonUtilNotify;
using ::CommonUtilOrbService;
using ::CommonUtilService;
}  // namespace commonutil
