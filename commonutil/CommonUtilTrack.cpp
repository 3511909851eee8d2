// The facade's calls into user tracking.
#include <cerrno>
#include <cstring>
#include <new>

#include "CommonUtil.h"
#include "publicInc/CommonUtilManager.h"
#include "publicInc/ResultCode.h"
#include "util/Boundary.h"
#include "util/FixedText.h"
#include "util/Log.h"
#include "util/Statistics.h"
#include "zel_platform/securec.h"
#include "zel_platform/track.h"

namespace commonutil {

namespace {

constexpr char kLogFile[] = "commonutil/CommonUtil";

bool IsIndex(const char* index, unsigned long length) { return index != nullptr && length != 0; }

UTContextSpecialParam OwnCopy(const tagZelUtilSpecialParam& param) {
  return {FixedText(param.eventId), FixedText(param.arg1), FixedText(param.arg2),
          FixedText(param.arg3), FixedText(param.args)};
}

UTContextPublicParam OwnCopy(const tagZelUtilPublicParam& param) {
  return {FixedText(param.version),      FixedText(param.deviceId), FixedText(param.brand),
          FixedText(param.deviceModel),  FixedText(param.cpu),      FixedText(param.resolution),
          FixedText(param.appId),        FixedText(param.language), FixedText(param.osName),
          FixedText(param.osVersion),    FixedText(param.carrier),  FixedText(param.access),
          FixedText(param.accessSubtype)};
}

// Hands the event's record to `track`, and counts what becomes of it; kFailed without memory.
template <class Track>
int WithRecord(const tagZelUtilSpecialParam& param, std::int32_t number, Track track) {
  const int result = AtBoundary(kFailed, [&] {
    const UTContextSpecialParam event = OwnCopy(param);
    return track(UTEventRecord{event.eventId.c_str(), event.arg1.c_str(), event.arg2.c_str(),
                               event.arg3.c_str(), event.args.c_str(), number});
  });
  Statistics::Count(result == kOk ? Counter::kTrackingEvents : Counter::kTrackingRefusals);
  return result;
}

template <std::size_t kSize>
errno_t Fill(char (&destination)[kSize], const std::string& text) {
  return strcpy_s(destination, kSize, text.c_str());
}

// The sum of the copies' errors; a text that does not fit is left empty.
errno_t FillContext(UTContextRecord& record, const UTContextPublicParam& from) {
  errno_t errors = Fill(record.version, from.version);
  errors += Fill(record.deviceId, from.deviceId);
  errors += Fill(record.brand, from.brand);
  errors += Fill(record.deviceModel, from.deviceModel);
  errors += Fill(record.cpu, from.cpu);
  errors += Fill(record.resolution, from.resolution);
  errors += Fill(record.appId, from.appId);
  errors += Fill(record.language, from.language);
  errors += Fill(record.osName, from.osName);
  errors += Fill(record.osVersion, from.osVersion);
  errors += Fill(record.carrier, from.carrier);
  errors += Fill(record.access, from.access);
  errors += Fill(record.accessSubtype, from.accessSubtype);
  return errors;
}

}  // namespace

int CommonUtil::UTConfigCustomParam(const tagZelUtilCustomParam& param) {
  return Track_ConfigCustomParam(param.uploadSwitch, &param);
}

int CommonUtil::UTConfigPublicParam(const tagZelUtilPublicParam& param) try {
  ZEL_LOG(kInfo) << "[UT] start!";
  const UTContextPublicParam own = OwnCopy(param);
  CommonUtilManager& manager = CommonUtilManager::GetInstance();
  manager.SetDeviceGuid(own.deviceId.c_str());
  (void)manager.GetDeviceGuid();  // says so when it is empty
  ZEL_LOG_DATA(kInfo) << "[UT] channelId:" << FixedText(param.channelId) << "access: " << own.access
                      << ", version: " << own.version;
  UTContextRecord record = {};
  const errno_t errors = FillContext(record, own);
  if (errors != 0) ZEL_LOG(kError) << "secure function return err: " << errors;
  (void)Track_ConfigTanloContextPublicParam(&record);
  return kOk;
} catch (const std::bad_alloc&) {
  return kFailed;
}

int CommonUtil::UTAddUserTrack(const tagZelUtilSpecialParam& param) {
  return WithRecord(param, 0,
                    [](const UTEventRecord& record) { return Track_AddUserTrack(&record); });
}

int CommonUtil::UTStartEvent(const char* index, unsigned long length) {
  if (!IsIndex(index, length)) return kBadParameter;
  return Track_StartEvent(index, length);
}

int CommonUtil::UTFinishEvent(const char* index, unsigned long length,
                              const tagZelUtilSpecialParam& param) {
  if (!IsIndex(index, length)) {
    ZEL_LOG(kError) << "params error! indexLen: " << length;
    return kBadParameter;
  }
  return WithRecord(param, param.param, [index, length](const UTEventRecord& record) {
    return Track_FinishEvent(index, &record, length);
  });
}

int CommonUtil::UTAddSubEvent(const char* index, unsigned long length,
                              const tagZelSubEventParam& param) {
  if (!IsIndex(index, length)) return kBadParameter;
  const UTSubEventRecord record = {&param};
  return Track_AddSubEvent(index, &record, length);
}

int CommonUtil::UTUploadData() {
  ZEL_LOG(kInfo) << "[UT] end or leave conf, upload";
  return Track_UploadUserTrack();
}

int CommonUtil::UTAddMediaTrack(const tagZelUtilSpecialParam& param, bool flag) {
  return WithRecord(
      param, 0, [flag](const UTEventRecord& record) { return Track_AddMediaTrack(&record, flag); });
}

int CommonUtil::UTAddConfMediaTrack(unsigned int id, const char* data, bool flag) {
  return MediaTrack_AddDataConfDotData(id, data, flag);
}

int CommonUtil::UTSetCpuAndMemoryParam(const tagZelCpuAndMemoryParam& param) {
  UTCpuMemoryRecord record = {};
  static_assert(sizeof(record.values) == sizeof(param.values), "copied unchanged");
  std::memcpy(record.values, param.values, sizeof(record.values));
  const errno_t error =
      AtBoundary(ENOMEM, [&] { return Fill(record.text, FixedText(param.text)); });
  if (error != 0) ZEL_LOG(kError) << "secure function return err: " << error;
  return MediaTrack_SetCpuAndMemoryInfo(&record);
}

}  // namespace commonutil
