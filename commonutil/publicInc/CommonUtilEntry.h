/*
 * The message service: JSON requests in, JSON replies and notifications out.
 *
 * The first six functions exist twice, with and without the prefix "CommonUtil". One host thread
 * imports, one (it may be the same) exports; start-up and shut-down may be called from any thread
 * but not from inside a message's handling. No function throws. Three may block: shut-down, which
 * waits for the request being handled, CommonUtilProcessRecvMsg and CommonUtilWaitExportMsg.
 *
 * A request is an object with "cmd" (unsigned), optionally "sno" (unsigned, echoed),
 * "description" (text, echoed) and "param" (object). Text is UTF-8.
 */
#ifndef ZEL_UTILS_COMMON_UTIL_ENTRY_H
#define ZEL_UTILS_COMMON_UTIL_ENTRY_H

#include "publicInc/ZelExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Starts the service thread. 0 when it runs, also when it ran before; 1 without memory;
 * otherwise the errno value of the failed thread creation.
 */
ZEL_API int CommonUtilServiceStartup(void);
/* As CommonUtilServiceStartup. */
ZEL_API int ServiceStartup(void);

/*
 * Stops the service thread after the request that it is handling, waits for it, and drops
 * the messages not yet taken. A thread that has not begun its work yet clears the request to
 * stop: wait for a first reply before shutting down, or the call may not return. Tracking and the
 * logger go on writing into their directories.
 */
ZEL_API void CommonUtilServiceShutDown(void);
/* As CommonUtilServiceShutDown. */
ZEL_API void ServiceShutDown(void);

/*
 * Queues a copy of `length` bytes, which need no NUL. 1 when queued; 0 for null, a length of
 * 0, 2048 messages waiting, no memory, or a service that was never started.
 */
ZEL_API int CommonUtilRecvMsgImport(const char* message, unsigned long length);
/* As CommonUtilRecvMsgImport. */
ZEL_API int RecvMsgImport(const char* message, unsigned long length);

/*
 * Hands out the oldest reply or notification, NUL-terminated. 1 with `*message` set: the
 * caller owns it until CommonUtilFreeExportMsg. 0 when there is none: `*message` is untouched.
 */
ZEL_API int CommonUtilSendMsgExport(char** message);
/* As CommonUtilSendMsgExport. */
ZEL_API int SendMsgExport(char** message);

/* Gives a message of CommonUtilSendMsgExport back. Null is ignored. */
ZEL_API void CommonUtilFreeExportMsg(char* message);
/* As CommonUtilFreeExportMsg. */
ZEL_API void FreeExportMsg(char* message);

/*
 * Handles one NUL-terminated request on the calling thread; its reply waits for
 * CommonUtilSendMsgExport as any other. Needs no started service. Returns 0, or 1 for null
 * or without memory. The buffer stays the caller's and is not changed.
 */
ZEL_API int CommonUtilProcessRecvMsg(char* message);
/* As CommonUtilProcessRecvMsg. */
ZEL_API int ProcessRecvMsg(char* message);

/*
 * Waits for a reply or notification: 1 when one waits or arrives within `timeoutMs`
 * milliseconds, 0 when not, and at once without a service; one that is shut down meanwhile ends
 * the wait within a moment. Takes nothing. Any thread.
 */
ZEL_API int CommonUtilWaitExportMsg(unsigned int timeoutMs);

/*
 * An eventfd(2) for poll, epoll and event loops: readable while messages wait, and now and then
 * for a moment when none does. It stays the library's: do not read, write or close it. -1 without
 * a service; the same descriptor for all services of the process. Ask for it before waiting on it,
 * and take what waits already.
 */
ZEL_API int CommonUtilExportMsgFd(void);

/*
 * 1: an imported request wakes the service thread at once. 0, as at the start: it is found within
 * 5 ms. Any thread, at any time, for all services of the process.
 */
ZEL_API void CommonUtilServiceSetEager(int eager);

/* The library's version, "major.minor.patch". Static text. */
ZEL_API const char* CommonUtilVersion(void);

/*
 * What the library has done, as a JSON object (see docs/messages.md); the caller gives it back
 * with CommonUtilFreeExportMsg. Null without memory. Any thread; takes no lock that work waits for.
 */
ZEL_API char* CommonUtilStatistics(void);

#ifdef __cplusplus
}
#endif

#endif
