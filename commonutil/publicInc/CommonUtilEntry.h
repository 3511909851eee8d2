/*
 * The message service: JSON requests in, JSON replies and notifications out.
 *
 * Each function exists twice, with and without the prefix "CommonUtil". One host thread
 * imports, one (it may be the same) exports; start-up and shut-down may be called from any
 * thread but not from inside a message's handling. No function throws or blocks, except
 * shut-down, which waits for the request being handled, and CommonUtilProcessRecvMsg.
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
ZEL_API int ServiceStartup(void);

/*
 * Stops the service thread after the request that it is handling, waits for it, and drops
 * the messages not yet taken. A thread that has not begun its work yet clears the request to
 * stop: wait for a first reply before shutting down, or the call may not return.
 */
ZEL_API void CommonUtilServiceShutDown(void);
ZEL_API void ServiceShutDown(void);

/*
 * Queues a copy of `length` bytes, which need no NUL. 1 when queued; 0 for null, a length of
 * 0, 2048 messages waiting, no memory, or a service that was never started.
 */
ZEL_API int CommonUtilRecvMsgImport(const char* message, unsigned long length);
ZEL_API int RecvMsgImport(const char* message, unsigned long length);

/*
 * Hands out the oldest reply or notification, NUL-terminated. 1 with `*message` set: the
 * caller owns it until CommonUtilFreeExportMsg. 0 when there is none: `*message` is untouched.
 */
ZEL_API int CommonUtilSendMsgExport(char** message);
ZEL_API int SendMsgExport(char** message);

/* Gives a message of CommonUtilSendMsgExport back. Null is ignored. */
ZEL_API void CommonUtilFreeExportMsg(char* message);
ZEL_API void FreeExportMsg(char* message);

/*
 * Handles one NUL-terminated request on the calling thread; its reply waits for
 * CommonUtilSendMsgExport as any other. Needs no started service. Returns 0, or 1 for null
 * or without memory. The buffer stays the caller's and is not changed.
 */
ZEL_API int CommonUtilProcessRecvMsg(char* message);
ZEL_API int ProcessRecvMsg(char* message);

#ifdef __cplusplus
}
#endif

#endif
