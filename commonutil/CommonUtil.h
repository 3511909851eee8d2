// The facade: what the SDK's other libraries call. Stateless; any thread.
//
// Initialisation runs on the command worker and blocks its caller until it has ended. After
// UninitCommonUtil or StopMsgThread the worker is gone for good, and a call that needs it
// throws std::future_error (the first) or never returns (the later ones). Nothing else throws:
// without memory a call returns kFailed, or does nothing.
#pragma once

#include <string>

#include "publicInc/CommonUtilCallbacks.h"
#include "publicInc/CommonUtilData.h"
#include "publicInc/CommonUtilGlobalErrorCode.h"
#include "publicInc/CommonUtilTrackData.h"
#include "publicInc/ZelExport.h"
#include "zel_platform/logger.h"

namespace commonutil {

// The one facade of the process.
class ZEL_API CommonUtil {
 public:
  // Lives to the end of the process.
  static CommonUtil& getInst();

  // Sets tracking, the configuration directory and the encrypted cache up, once per process.
  // Both paths are directories. `callback` may be null and must stay alive. Returns 0,
  // kFailed when the cache database cannot be used (the rest works), kAlreadyInitialised, or
  // kPushNoMemory where the worker finds no memory or no thread: the next call tries again.
  int InitCommonUtil(const tagZelUtilInitParam& param, GlobalCallback* callback);
  // Ends the command worker and tracking; the database stays open, and there is no second
  // initialisation. Returns the tracking library's result.
  int UninitCommonUtil();
  // Ends the command worker only.
  void StopMsgThread();

  // Moves the tracking library's logs; `level` is not used, the one of the initialisation
  // stays in force. Returns the tracking library's result.
  int SetLogPath(const std::string& path, tagLoggerLevel level);

  // Copies the GUID with its NUL into `buf` of `len` bytes, and sets `len` to its length without
  // NUL, also when it did not fit: `buf` is empty then. A null `buf` does nothing.
  void GetDeviceGuid(char* buf, int& len);
  // Null is ignored. Not persistent.
  void SetDeviceGuid(const char* guid);
  // As given at initialisation; empty before.
  std::string GetDBPath();

  // The global error code that stands for a library's code; see ZelGlobalErrorCode.
  tagSDKERR GetGlobalErrorCode(int code);

  // --- Proxy ------------------------------------------------------------------

  // The proxy that the user set, and the NUL-terminated URL of the server that must be reached.
  // kBadParameter for a null URL or a `urlLen` of 0; the length has no other use. Settings other
  // than the last ones make the next GetProxy probe anew.
  int SetUserInfo(const tagZelUtilProxyInfo& proxyInfo, const char* url, unsigned long urlLen);
  // 0 when the answer is known and `callback` was called, kProxyUnfinished when the probe that
  // gets through will call it on its own thread. A later call replaces the callback, which is
  // then never called. The caller owns it.
  int GetProxy(GetProxyCompletedCallback* callback);
  // The network changed: forgets the decision and asks anew, as GetProxy. `info` is the local
  // IP, NUL-terminated, for the log; `len` is not used.
  void NetworkChange(const char* info, unsigned long len, GetProxyCompletedCallback* callback);
  // Sets the HTTP library's proxy for the whole process; an empty domain removes it. Returns
  // the library's result.
  int HttpSetProxy(const char* domain, const char* user, const char* password, unsigned short port);
  // Tries a tunnel to host:port through that proxy. Returns the library's result.
  int HttpProxyConnect(unsigned int id, const char* host, unsigned short port);

  // --- Network detection -------------------------------------------------------

  // The addresses to measure from. Returns the network tools' result.
  int SetLocalIP(const char* first, const char* second);
  // The servers of the next detection: internet, middle, media, SBC; null counts as empty. s5
  // and s6 are not used. `flag` goes to the platform's list of known addresses, which is set
  // first when it has them. Returns the network tools' result for s1 to s4.
  int SetNetDetectSrvs(const char* s1, const char* s2, const char* s3, const char* s4,
                       const char* s5, const char* s6, bool flag);
  // Starts a detection, which calls `callback` once a server on the network tools' thread; it must
  // outlive the run. Non-zero while one runs and without servers.
  int NetDetect(int type, GetNetDetectCallback* callback);
  // What NetDetect gives the network tools.
  static void NetDetectNotify(tagNET_DETECT_PROCESS_RESULT& result);

  // --- Audit tasks -------------------------------------------------------------

  // `user` is an AuditTaskCallback, or null for no answer. Texts longer than 511, 63, 63 and
  // 399 bytes are sent empty. Return the login library's result; the answer comes on its thread.
  int UploadAuditFile(const char* path, const char* name, void* user);
  // Tells the state of a task.
  int ReportAuditTask(unsigned int id, bool state, const char* text, void* user);
  // Asks for the entries of a task.
  int QueryAuditTask(unsigned int id, const char* text, void* user);
  // What the login library calls with its answers, records of zel_platform/login.h. `callback`
  // is the request's `user`.
  static void OnUploadAuditFileCallback(unsigned int id, int code, void* callback,
                                        const void* result);
  // As above, with a tagLOGIN_AUDIT_REPORT_RESULT.
  static void OnReportAuditTaskCallback(unsigned int id, void* callback, const void* result);
  // As above, with a tagLOGIN_AUDIT_QUERY_RESULT.
  static void OnQueryAuditTaskCallback(unsigned int id, void* callback, const void* result);

  // Nothing on this platform: 0, with the arguments untouched.
  int GetWindowsCountryOrRegionData(int& id, wchar_t* name, int length);

  // --- User tracking -----------------------------------------------------------

  // Each returns the tracking library's result unless said otherwise, and kBadParameter for a
  // null index or one of length 0. Records are copied.
  int UTConfigCustomParam(const tagZelUtilCustomParam& param);
  // Also replaces the device GUID by `deviceId`, an empty one included. 0, whatever the tracking
  // library returns.
  int UTConfigPublicParam(const tagZelUtilPublicParam& param);
  // Adds one event.
  int UTAddUserTrack(const tagZelUtilSpecialParam& param);
  // A timed event, named by `index` of `length` bytes.
  int UTStartEvent(const char* index, unsigned long length);
  // Ends a timed event and adds it.
  int UTFinishEvent(const char* index, unsigned long length, const tagZelUtilSpecialParam& param);
  // Adds a part to a timed event.
  int UTAddSubEvent(const char* index, unsigned long length, const tagZelSubEventParam& param);
  // Asks for an upload of what is kept.
  int UTUploadData();
  // Adds one event of the media side; `flag` goes with it.
  int UTAddMediaTrack(const tagZelUtilSpecialParam& param, bool flag);
  // Adds an event with a conference's id and its data, a NUL-terminated text.
  int UTAddConfMediaTrack(unsigned int id, const char* data, bool flag);
  // Adds an event with a measurement of the machine.
  int UTSetCpuAndMemoryParam(const tagZelCpuAndMemoryParam& param);

 private:
  CommonUtil() = default;
};

}  // namespace commonutil
