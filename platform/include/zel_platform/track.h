// User tracking: analytics events and their context, kept and uploaded by this library.
//
// Any thread may call any function, also before InitUnifiedTrack and after Track_Uninit
// (the call then succeeds without effect). Records and texts are copied before the call
// returns; text pointers of a record may be null. No lock is held while a registered
// function is called, and cache functions are called from this library's own thread
// only, never before the library that registered them has ended its initialisation.
#pragma once

#include <cstdint>

#include "zel_platform/platform_export.h"

struct UTEventRecord {
  const char *eventId, *arg1, *arg2, *arg3, *args;
  std::int32_t param;
};

struct UTContextRecord {
  char version[16], deviceId[128], brand[64], deviceModel[64], cpu[64], resolution[32], appId[128],
      language[16], osName[16], osVersion[32], carrier[16], access[16], accessSubtype[16];
};

struct UTSubEventRecord {
  const void* subEvent;  // layout agreed between the caller and this library
};

struct UTCpuMemoryRecord {
  std::int32_t values[3];
  char text[256];
};

// uuid, account, gantryIp, sbcIp, then six further texts.
struct UTPublicSdkRecord {
  const char* text[10];
};

static_assert(sizeof(UTEventRecord) == 48, "five pointers and one 32-bit integer");
static_assert(sizeof(UTContextRecord) == 608, "thirteen fixed texts");

extern "C" {
// Log level, size of one log file in KB, number of log files kept, log directory and
// database directory. Opens the module log "native_sdk" in the log directory when no
// module is open yet. Non-zero when a directory cannot be used.
ZEL_PLATFORM_API int InitUnifiedTrack(int logLevel, int logSize, int fileCount, const char* logPath,
                                      const char* dbPath);
// Ends tracking. Neither calls a cache function nor waits for a thread that may be in one.
ZEL_PLATFORM_API int Track_Uninit(void);
ZEL_PLATFORM_API int Track_UpdateLogPath(int logLevel, int logSize, int fileCount,
                                         const char* path);

ZEL_PLATFORM_API int Track_AddUserTrack(const UTEventRecord* record);
ZEL_PLATFORM_API int Track_StartEvent(const char* index, unsigned long length);
ZEL_PLATFORM_API int Track_FinishEvent(const char* index, const UTEventRecord* record,
                                       unsigned long length);
ZEL_PLATFORM_API int Track_AddSubEvent(const char* index, const UTSubEventRecord* record,
                                       unsigned long length);
ZEL_PLATFORM_API int Track_AddMediaTrack(const UTEventRecord* record, bool flag);
ZEL_PLATFORM_API int Track_UploadUserTrack(void);
// `param` is the caller's whole record, `first` its first integer.
ZEL_PLATFORM_API int Track_ConfigCustomParam(int first, const void* param);
ZEL_PLATFORM_API int Track_ConfigTanloContextPublicParam(const UTContextRecord* record);
ZEL_PLATFORM_API int Track_ConfigPublicSdkParam(const UTPublicSdkRecord* record);
ZEL_PLATFORM_API int MediaTrack_AddDataConfDotData(unsigned int id, const char* data, bool flag);
ZEL_PLATFORM_API int MediaTrack_SetCpuAndMemoryInfo(const UTCpuMemoryRecord* record);

// Counts one message of a category; 4 is the command worker.
ZEL_PLATFORM_API void Track_MsgDotCount(int category);
// An error of another library, by type. Never calls the error function on this thread.
ZEL_PLATFORM_API void Track_ErrorAnalyze(const char* type, const char* text);
__attribute__((format(printf, 3, 4))) ZEL_PLATFORM_API void Track_AddTraceApiLog(int a, int b,
                                                                                 const char* fmt,
                                                                                 ...);
// Registers the receiver of this library's own error texts; null unregisters.
ZEL_PLATFORM_API void SetErrTrackCallback(void (*onError)(const char* text));
// Registers where this library keeps its own small state: `entries` and `out` are arrays
// of the registering library's cache records, `*count` is capacity in and rows out.
ZEL_PLATFORM_API void setAddCacheFun(int (*batchAdd)(const void* entries, int count),
                                     int (*query)(const char* key, void* out, int* count));
__attribute__((format(printf, 5, 6))) ZEL_PLATFORM_API void IntelligentAnalyseDoStubToLog(
    const char* module, const char* category, int level, const char* function, const char* fmt,
    ...);
}
