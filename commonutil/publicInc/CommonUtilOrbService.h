// The base of the message service: the message stores, and how replies are composed and sent.
//
// Replies are composed on whatever thread runs a handler; they meet only in the outbound
// store. The composers keep no state. A full ring loses a message without a sign.
#pragma once

#include <atomic>
#include <exception>

#include <json/value.h>

#include "publicInc/msg_storage.h"

class CommonUtilOrbService {
 public:
  CommonUtilOrbService() = default;
  CommonUtilOrbService(const CommonUtilOrbService&) = delete;
  CommonUtilOrbService& operator=(const CommonUtilOrbService&) = delete;

  virtual ~CommonUtilOrbService() = default;
  // Handles one NUL-terminated request. 0.
  virtual int ProcessRecvMsg(char* message) = 0;
  // Handles one parsed request and returns the oldest message of the secondary store, to be
  // deleted with delete[], or null. From the first call on, and for good, all replies go to
  // the secondary store, which nothing else drains; notifications do not. One thread at a time.
  virtual char* ProcessCallFuncMsg(Json::Value& request) = 0;
  // The number of an event, unchanged.
  virtual unsigned int _makeNotifyMsgID(unsigned int event) = 0;

  // Stores a request and wipes the caller's buffer; returns the wipe's result: 0 is success,
  // also when the ring was full.
  int RecvMsgImport(char* data, unsigned long length);
  int SendMsgExport(char** out);

  // Stores a reply; 1, or 0 for a full ring.
  int _sendRetMsg(const char* text, unsigned long length);
  // Composes and sends a reply. `description` is used when the request brings none.
  void _makeRetMsgAndSend(int result, Json::Value& request, const char* description);
  void _makeRetMsgAndSend(int result, Json::Value& payload, Json::Value& request,
                          const char* description);
  // The reply to a request whose handler threw; none when the exception has no message.
  void _processInputJsonException(const std::exception& error, Json::Value& request);

  // The store between host and service.
  msg_storage& PrimaryStore() { return m_primary; }

 protected:
  // A reply without "param": "description" (with the fallback, unless that is null), "rsp",
  // "result", "sno".
  static Json::Value ComposeReply(int result, const Json::Value& request, const char* description);
  void SendReply(const Json::Value& reply);
  void SendNotification(const Json::Value& notification);

  // Set by ProcessCallFuncMsg on any thread, never cleared; guards no other data.
  std::atomic<bool> m_repliesToSecondary{false};
  msg_storage m_primary;
  msg_storage m_secondary;
  void* m_reserved = nullptr;  // part of the object's layout
};
