#include "CommonUtil.h"

#include "publicInc/CommonUtilManager.h"
#include "publicInc/ResultCode.h"
#include "util/Boundary.h"
#include "util/Log.h"
#include "util/MsgMgr.h"
#include "zel_platform/securec.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/CommonUtil";
constexpr char kInitCommandName[] =
    "int commonutil::CommonUtil::InitCommonUtil(const commonutil::ZelUtilInitParam &, "
    "commonutil::GlobalCallback *)";

}  // namespace

CommonUtil& CommonUtil::getInst() {
  static CommonUtil instance;  // has nothing to destroy
  return instance;
}

int CommonUtil::InitCommonUtil(const tagZelUtilInitParam& param, GlobalCallback* callback) {
  const auto command = [&param, callback] {
    return CommonUtilManager::GetInstance().InitCommonUtil(param, callback);
  };
  return RunOnWorker(command, kInitCommandName);
}

int CommonUtil::UninitCommonUtil() {
  MsgMainThreadMgr::StopThread();
  return Track_Uninit();
}

void CommonUtil::StopMsgThread() { MsgMainThreadMgr::StopThread(); }

int CommonUtil::SetLogPath(const std::string& path, tagLoggerLevel level) {
  return AtBoundary(kFailed,
                    [&] { return CommonUtilManager::GetInstance().UpdateLogPath(path, level); });
}

void CommonUtil::GetDeviceGuid(char* buf, int& len) {
  if (buf == nullptr) return;
  const std::string guid =
      AtBoundary(std::string(), [] { return CommonUtilManager::GetInstance().GetDeviceGuid(); });
  const errno_t error = strcpy_s(buf, static_cast<rsize_t>(len), guid.c_str());
  if (error != 0) ZEL_LOG(kError) << "secure function return err: " << error;
  len = static_cast<int>(guid.size());
}

void CommonUtil::SetDeviceGuid(const char* guid) {
  AtBoundary([guid] { CommonUtilManager::GetInstance().SetDeviceGuid(guid); });
}

std::string CommonUtil::GetDBPath() {
  return AtBoundary(std::string(), [] { return CommonUtilManager::GetInstance().GetDBPath(); });
}

tagSDKERR CommonUtil::GetGlobalErrorCode(int code) {
  return ZelGlobalErrorCode::GetGlobalErrorCode(code);
}

}  // namespace commonutil
