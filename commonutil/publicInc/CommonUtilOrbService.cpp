#include "publicInc/CommonUtilOrbService.h"

#include <string>

#include "publicInc/JsonAccess.h"
#include "publicInc/MessageKeys.h"
#include "publicInc/ResultCode.h"
#include "util/StyledText.h"
#include "zel_platform/securec.h"

namespace key = message_key;

namespace {

constexpr char kReasonPrefix[] = "some param is not correct! ";

void CopyUnsigned(const Json::Value& request, const char* from, Json::Value& reply,
                  const char* to) {
  const Json::Value& value = request[from];
  if (value.isUInt()) reply[to] = value.asUInt();
}

void CopyDescription(const Json::Value& request, Json::Value& reply) {
  const Json::Value& value = request[key::kDescription];
  if (value.isString()) reply[key::kDescription] = value;
}

}  // namespace

int CommonUtilOrbService::RecvMsgImport(char* data, unsigned long length) {
  (void)m_primary.RecvMsgImport(data, length);  // the result is the wipe's
  return memset_s(data, length, 0, length);
}

int CommonUtilOrbService::SendMsgExport(char** out) { return m_primary.SendMsgExport(out); }

int CommonUtilOrbService::_sendRetMsg(const char* text, unsigned long length) {
  msg_storage& store = m_repliesToSecondary.load() ? m_secondary : m_primary;
  return store.SendMsgImport(text, length);
}

void CommonUtilOrbService::_makeRetMsgAndSend(int result, Json::Value& request,
                                              const char* description) {
  SendReply(ComposeReply(result, request, description));
}

void CommonUtilOrbService::_makeRetMsgAndSend(int result, Json::Value& payload,
                                              Json::Value& request, const char* description) {
  Json::Value reply = ComposeReply(result, request, description);
  reply[key::kParam] = payload;
  SendReply(reply);
}

void CommonUtilOrbService::_processInputJsonException(const std::exception& error,
                                                      Json::Value& request) {
  const char* const what = error.what();
  if (what == nullptr) return;
  const Json::Value& received = request;  // reading through it adds no keys
  Json::Value reply(Json::objectValue);
  CopyDescription(received, reply);
  CopyUnsigned(received, key::kCmd, reply, key::kRsp);
  CopyUnsigned(received, key::kSno, reply, key::kSno);
  reply[key::kResult] = commonutil::kFailed;
  reply[key::kReason] = std::string(kReasonPrefix) + what;
  reply[key::kSourceRequest] = received;
  SendReply(reply);
}

Json::Value CommonUtilOrbService::ComposeReply(int result, const Json::Value& request,
                                               const char* description) {
  using Json::StaticString;  // such a key is not copied
  Json::Value reply(Json::objectValue);
  const Json::Value& text = request[key::kDescription];
  if (text.isString()) {
    reply[StaticString(key::kDescription)] = text;
  } else if (description != nullptr) {
    reply[StaticString(key::kDescription)] = description;
  }
  reply[StaticString(key::kRsp)] = UnsignedOrZero(request[key::kCmd]);
  reply[StaticString(key::kResult)] = result;
  const Json::Value& sno = request[key::kSno];
  if (sno.isUInt()) reply[StaticString(key::kSno)] = sno.asUInt();
  return reply;
}

void CommonUtilOrbService::SendReply(const Json::Value& reply) {
  const commonutil::StyledText styled(reply);
  // A full ring loses the reply.
  (void)_sendRetMsg(styled.Text().data(), styled.Text().size());
}

void CommonUtilOrbService::SendNotification(const Json::Value& notification) {
  const commonutil::StyledText styled(notification);
  // A full ring loses it.
  (void)m_primary.SendMsgImport(styled.Text().data(), styled.Text().size());
}
