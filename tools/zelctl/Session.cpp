#include "Session.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <thread>

#include <json/reader.h>
#include <json/writer.h>

#include "CommonUtil.h"
#include "Text.h"
#include "publicInc/CommonUtilEntry.h"

namespace zelctl {
namespace {

constexpr unsigned int kAwaitMs = 20;
constexpr auto kPoll = std::chrono::milliseconds(1);
constexpr auto kCloseTimeout = std::chrono::seconds(30);
constexpr int kStored = 1;
constexpr int kNetDetectEvent = 3;
// An error reply holds its whole request, which may itself be nested as deeply as the
// library's own reader allows.
constexpr int kReplyDepth = 4000;

// A request that changes nothing. Its reply proves that the service thread runs and has dealt
// with everything before it: only then does a shut-down lose no request.
constexpr char kCloseDescription[] = "zelctl: end of session";

std::string CloseRequest() {
  return R"({"cmd":13,"description":")" + std::string(kCloseDescription) + R"("})";
}

struct FreeMessage {
  void operator()(char* message) const noexcept { CommonUtilFreeExportMsg(message); }
};
using Message = std::unique_ptr<char, FreeMessage>;

Message TakeMessage() {
  char* message = nullptr;
  return Message(CommonUtilSendMsgExport(&message) == kStored ? message : nullptr);
}

// Until a message is there, for a moment at most: signals and deadlines are looked at in between.
void AwaitMessage() { (void)CommonUtilWaitExportMsg(kAwaitMs); }

bool Parse(const std::string& text, Json::Value& root) {
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = kReplyDepth;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &root, nullptr) && root.isObject();
  } catch (const std::exception&) {
    return false;
  }
}

std::string OnOneLine(const Json::Value& message) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  return Json::writeString(builder, message);
}

std::string LineRemark(std::size_t lineNumber, const std::string& remark) {
  return "line " + std::to_string(lineNumber) + ": " + remark;
}

std::string InSeconds(std::chrono::nanoseconds time) {
  std::ostringstream text;
  text << std::chrono::duration<double>(time).count() << " s";
  return text.str();
}

}  // namespace

Session::Session(std::chrono::nanoseconds timeout, const std::atomic<bool>& interrupted)
    : m_timeout(timeout), m_interrupted(interrupted) {}

bool Session::Start() {
  CommonUtilServiceSetEager(1);
  const int rc = CommonUtilServiceStartup();
  if (rc != 0) Fail("the service does not start, code " + std::to_string(rc));
  return rc == 0;
}

void Session::Play(const std::string& text, std::size_t lineNumber) {
  const Request request = ReadRequest(text);
  const Clock::time_point deadline = Clock::now() + m_timeout;
  if (request.isDueReply) {
    m_open.push_back({request.command, request.sno, lineNumber, request.startsDetection});
  }
  if (!Send(text, deadline)) return Fail(LineRemark(lineNumber, "the library takes no request"));
  if (!request.remark.empty()) {
    Complain(LineRemark(lineNumber, request.remark + ", no reply is awaited"));
  }
  for (PrintArrived(); IsAwaited(lineNumber); PrintArrived()) {
    if (m_interrupted) return Fail(LineRemark(lineNumber, "interrupted before the reply"));
    if (Clock::now() >= deadline) {
      const std::string missing = IsOpen(lineNumber)
                                      ? "no reply to command " + std::to_string(request.command)
                                      : "no end of the detection";
      return Fail(LineRemark(lineNumber, missing + " within " + InSeconds(m_timeout)));
    }
    AwaitMessage();
  }
}

void Session::PrintArrived() {
  while (const Message message = TakeMessage()) Handle(message.get());
}

void Session::Finish() {
  const Clock::time_point deadline = Clock::now() + kCloseTimeout;
  m_closing = true;
  const bool sent = Send(CloseRequest(), deadline);
  while (sent && !m_closeAnswered && Clock::now() < deadline) {
    PrintArrived();
    AwaitMessage();
  }
  // A shut-down would wait for the stuck thread without end.
  if (!m_closeAnswered) return Fail("the service no longer answers, it is left running");
  CommonUtilServiceShutDown();
  // Delivers the tracking events that still wait.
  (void)commonutil::CommonUtil::getInst().UninitCommonUtil();
}

// A full ring is no failure yet, the service thread is emptying it.
bool Session::Send(const std::string& text, Clock::time_point deadline) {
  while (CommonUtilRecvMsgImport(text.data(), text.size()) != kStored) {
    if (Clock::now() >= deadline) return false;
    PrintArrived();
    std::this_thread::sleep_for(kPoll);
  }
  return true;
}

bool Session::IsOpen(std::size_t lineNumber) const {
  return std::any_of(m_open.begin(), m_open.end(),
                     [&](const OpenRequest& open) { return open.lineNumber == lineNumber; });
}

bool Session::IsAwaited(std::size_t lineNumber) const {
  return IsOpen(lineNumber) || (m_detectionLine == lineNumber && m_detections > 0);
}

void Session::Handle(const char* text) {
  Json::Value parsed;
  if (!Parse(text, parsed)) return Fail("the library sent something that is no JSON object");
  const Json::Value& message = parsed;  // reading a key of a constant value adds none
  if (m_closing && message["description"] == kCloseDescription) {
    m_closeAnswered = true;
    return;
  }
  message.isMember("notify") ? NoteDetection(message) : CloseAnswered(message);
  Print(message);
}

void Session::CloseAnswered(const Json::Value& reply) {
  const std::optional<unsigned> command = UnsignedMember(reply, "rsp");
  const std::optional<unsigned> sno = UnsignedMember(reply, "sno");
  const auto answered = std::find_if(m_open.begin(), m_open.end(), [&](const OpenRequest& open) {
    return command == open.command && sno == open.sno;
  });
  if (answered == m_open.end()) return;
  if (answered->startsDetection && reply["result"] == 0) {
    ++m_detections;
    m_detectionLine = answered->lineNumber;
  }
  m_open.erase(answered);
}

void Session::NoteDetection(const Json::Value& notification) {
  if (notification["notify"] != kNetDetectEvent) return;
  const Json::Value& param = notification["param"];
  if (param["current_level"] == param["total_level"]) --m_detections;
}

void Session::Print(const Json::Value& message) {
  if (!m_canPrint) return;
  std::cout << OnOneLine(message) + '\n' << std::flush;
  m_canPrint = std::cout.good();
  if (!m_canPrint) Fail("cannot write to standard output");
}

void Session::Fail(const std::string& remark) {
  Complain(remark);
  m_succeeded = false;
}

}  // namespace zelctl
