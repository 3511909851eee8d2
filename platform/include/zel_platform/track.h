// User tracking: analytics events and their context, kept and uploaded by this library.
//
// Any thread may call any function, also before InitUnifiedTrack and after Track_Uninit:
// events then succeed without effect, parameters and consent are kept. Records and texts
// are copied before the call returns; text pointers of a record may be null. No lock is
// held while a registered function is called, and cache functions are called from this
// library's own thread only, never before the library that registered them has ended its
// initialisation.
//
// An event is complete and stored when its call returns, with the time, the session, a
// number that counts up within the session, and the parameters configured last. Functions
// that add events return 0 when the event is kept or not wanted, and 1, with one log line,
// when it was dropped: a null record, or more than 256 KB of texts. Bytes that are no
// UTF-8 are kept as they came and replaced by U+FFFD in what leaves the library.
#pragma once

#include <cstdint>

#include "zel_platform/platform_export.h"

// One event. The texts are the caller's.
struct UTEventRecord {
  const char* eventId;  // what happened
  const char* arg1;     // first argument
  const char* arg2;     // second argument
  const char* arg3;     // third argument
  const char* args;     // further arguments, JSON text by custom
  std::int32_t param;   // of a finished event; else 0
};

// What all events have in common. Texts end with a NUL.
struct UTContextRecord {
  char version[16];        // of the client
  char deviceId[128];      // GUID of the device
  char brand[64];          // maker of the device
  char deviceModel[64];    // model of the device
  char cpu[64];            // processor
  char resolution[32];     // of the screen
  char appId[128];         // application
  char language[16];       // of the user interface
  char osName[16];         // operating system
  char osVersion[32];      // its version
  char carrier[16];        // network operator
  char access[16];         // kind of network
  char accessSubtype[16];  // the kind in more detail
};

// A part of a timed event.
struct UTSubEventRecord {
  const void* subEvent;  // layout agreed between the caller and this library
};

// A measurement of the machine.
struct UTCpuMemoryRecord {
  std::int32_t values[3];  // as the caller measures
  char text[256];          // with the values, NUL-terminated
};

// uuid, account, gantryIp, sbcIp, then six further texts.
struct UTPublicSdkRecord {
  const char* text[10];  // may be null
};

static_assert(sizeof(UTEventRecord) == 48, "five pointers and one 32-bit integer");
static_assert(sizeof(UTContextRecord) == 608, "thirteen fixed texts");

extern "C" {
// Log level, size of one log file in KB, number of log files kept, log directory and
// database directory. Opens the module log "native_sdk" in the log directory when no
// module is open yet. Non-zero when a directory cannot be used; tracking then goes on
// without it. While it runs already, only the log directory is taken.
ZEL_PLATFORM_API int InitUnifiedTrack(int logLevel, int logSize, int fileCount, const char* logPath,
                                      const char* dbPath);
// Ends tracking. Neither calls a cache function nor waits for a thread that may be in one.
// Sends what waits, for two seconds at most; the rest is sent after the next start.
ZEL_PLATFORM_API int Track_Uninit(void);
// Moves the logs that InitUnifiedTrack opened; the arguments are the same. Non-zero when the
// directory cannot be used.
ZEL_PLATFORM_API int Track_UpdateLogPath(int logLevel, int logSize, int fileCount,
                                         const char* path);

// Adds one event.
ZEL_PLATFORM_API int Track_AddUserTrack(const UTEventRecord* record);
// A timed event lasts from its start to its finish, which adds it with its duration. The
// index is its first `length` bytes, or fewer up to a NUL; empty ones and more than 256
// bytes are dropped, and so are starts beyond 256 events under way. Starting an index that
// is under way drops the first start, with a log line, and returns 0. Finishing, or adding
// to, an index that is not under way - never started, finished already - is dropped.
ZEL_PLATFORM_API int Track_StartEvent(const char* index, unsigned long length);
// Ends a timed event and adds it.
ZEL_PLATFORM_API int Track_FinishEvent(const char* index, const UTEventRecord* record,
                                       unsigned long length);
// Adds a part to a timed event.
ZEL_PLATFORM_API int Track_AddSubEvent(const char* index, const UTSubEventRecord* record,
                                       unsigned long length);
// Adds one event of the media side; `flag` goes with it.
ZEL_PLATFORM_API int Track_AddMediaTrack(const UTEventRecord* record, bool flag);
// Asks for sending what waits, and returns at once.
ZEL_PLATFORM_API int Track_UploadUserTrack(void);
// `param` is the caller's whole record, `first` its first integer: the user's consent. 0
// withdraws it: nothing is stored or sent any more, what is stored is removed and what is
// being timed forgotten. Any other value gives it. A process starts with consent given, so
// a host whose user has not consented says so before it initialises, at every start.
ZEL_PLATFORM_API int Track_ConfigCustomParam(int first, const void* param);
// What all later events have in common. 1 for null, else 0.
ZEL_PLATFORM_API int Track_ConfigTanloContextPublicParam(const UTContextRecord* record);
// The SDK's parameters of all later events. 1 for null, else 0.
ZEL_PLATFORM_API int Track_ConfigPublicSdkParam(const UTPublicSdkRecord* record);
// Adds an event with a conference's id and its data, a text.
ZEL_PLATFORM_API int MediaTrack_AddDataConfDotData(unsigned int id, const char* data, bool flag);
// Adds an event with a measurement of the machine.
ZEL_PLATFORM_API int MediaTrack_SetCpuAndMemoryInfo(const UTCpuMemoryRecord* record);

// Counts one message of a category; 4 is the command worker.
ZEL_PLATFORM_API void Track_MsgDotCount(int category);
// An error of another library, by type. Never calls the error function on this thread.
ZEL_PLATFORM_API void Track_ErrorAnalyze(const char* type, const char* text);
// An event with two numbers and a text, which is written to the log too.
__attribute__((format(printf, 3, 4))) ZEL_PLATFORM_API void Track_AddTraceApiLog(int a, int b,
                                                                                 const char* fmt,
                                                                                 ...);
// Registers the receiver of this library's own error texts; null unregisters.
ZEL_PLATFORM_API void SetErrTrackCallback(void (*onError)(const char* text));
// Registers where this library keeps its own small state: `entries` and `out` are arrays
// of the registering library's cache records, `*count` is capacity in and rows out. A
// cache record is a std::int32_t, the row's number or 0 for a new one, and two std::string,
// key and value. The initialisation has ended with the first message of category 4 that is
// counted after the registration.
ZEL_PLATFORM_API void setAddCacheFun(int (*batchAdd)(const void* entries, int count),
                                     int (*query)(const char* key, void* out, int* count));
// A log line of `module`, with the category before its text. Adds no event.
__attribute__((format(printf, 5, 6))) ZEL_PLATFORM_API void IntelligentAnalyseDoStubToLog(
    const char* module, const char* category, int level, const char* function, const char* fmt,
    ...);
}
