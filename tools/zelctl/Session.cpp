#include "Session.h"

#include <algorithm>
#include <memory>
#include <sstream>
#include <thread>

#include "CommonUtil.h"
#include "JsonText.h"
#include "Text.h"
#include "publicInc/CommonUtilEntry.h"

namespace zelctl {
namespace {

constexpr unsigned int kAwaitMs = 20;
constexpr auto kPoll = std::chrono::milliseconds(1);
constexpr auto kCloseTimeout = std::chrono::seconds(30);
constexpr int kStored = 1;
constexpr int kNetDetectEvent = 3;

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

std::string LineRemark(std::size_t lineNumber, const std::string& remark) {
  return lineNumber == 0 ? remark : "line " + std::to_string(lineNumber) + ": " + remark;
}

std::string InSeconds(std::chrono::nanoseconds time) {
  std::ostringstream text;
  text << std::chrono::duration<double>(time).count() << " s";
  return text.str();
}

}  // namespace

Session::Session(std::chrono::nanoseconds timeout, const std::atomic<bool>& interrupted, Show show)
    : m_timeout(timeout), m_interrupted(interrupted), m_show(std::move(show)) {}

bool Session::Start() {
  CommonUtilServiceSetEager(1);
  const int rc = CommonUtilServiceStartup();
  if (rc != 0) Fail("the service does not start, code " + std::to_string(rc));
  return rc == 0;
}

void Session::Post(const std::string& text, std::size_t lineNumber) {
  const Request request = ReadRequest(text);
  const Clock::time_point now = Clock::now();
  if (request.isDueReply) {
    m_open.push_back({request.command, request.sno, lineNumber, request.startsDetection, now});
  }
  if (!Send(text, now + m_timeout)) {
    return Fail(LineRemark(lineNumber, "the library takes no request"));
  }
  if (!request.remark.empty()) {
    Complain(LineRemark(lineNumber, request.remark + ", no reply is awaited"));
  }
}

void Session::Play(const std::string& text, std::size_t lineNumber) {
  const Clock::time_point deadline = Clock::now() + m_timeout;
  Post(text, lineNumber);
  for (PrintArrived(); IsAwaited(lineNumber); PrintArrived()) {
    if (m_interrupted) return Fail(LineRemark(lineNumber, "interrupted before the reply"));
    if (Clock::now() >= deadline) {
      const std::string missing =
          IsOpen(lineNumber) ? "no reply to command " + std::to_string(m_open.back().command)
                             : "no end of the detection";
      return Fail(LineRemark(lineNumber, missing + " within " + InSeconds(m_timeout)));
    }
    AwaitMessage();
  }
}

bool Session::Await(std::chrono::nanoseconds atMost) {
  const Clock::time_point deadline = Clock::now() + atMost;
  const std::size_t before = m_shown;
  const bool wantsNext = IsIdle();
  for (PrintArrived(); wantsNext ? m_shown == before : !IsIdle(); PrintArrived()) {
    if (m_interrupted || !m_canPrint || Clock::now() >= deadline) return false;
    AwaitMessage();
  }
  return true;
}

bool Session::PassTime(Clock::time_point deadline) {
  for (PrintArrived(); Clock::now() < deadline; PrintArrived()) {
    if (m_interrupted) return false;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    (void)CommonUtilWaitExportMsg(
        static_cast<unsigned int>(std::clamp<long long>(left.count(), 0, kAwaitMs)));
  }
  return !m_interrupted;
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
  if (!ParseJson(text, parsed) || !parsed.isObject()) {
    return Fail("the library sent something that is no JSON object");
  }
  const Json::Value& message = parsed;  // reading a key of a constant value adds none
  if (m_closing && message["description"] == kCloseDescription) {
    m_closeAnswered = true;
    return;
  }
  std::optional<std::chrono::nanoseconds> took;
  message.isMember("notify") ? NoteDetection(message) : void(took = CloseAnswered(message));
  Print({text, message, took});
}

std::optional<std::chrono::nanoseconds> Session::CloseAnswered(const Json::Value& reply) {
  const std::optional<unsigned> command = UnsignedMember(reply, "rsp");
  const std::optional<unsigned> sno = UnsignedMember(reply, "sno");
  const auto answered = std::find_if(m_open.begin(), m_open.end(), [&](const OpenRequest& open) {
    return command == open.command && sno == open.sno;
  });
  if (answered == m_open.end()) return std::nullopt;
  if (answered->startsDetection && reply["result"] == 0) {
    ++m_detections;
    m_detectionLine = answered->lineNumber;
  }
  const Clock::duration took = Clock::now() - answered->sentAt;
  m_open.erase(answered);
  return took;
}

void Session::NoteDetection(const Json::Value& notification) {
  if (notification["notify"] != kNetDetectEvent) return;
  const Json::Value& param = notification["param"];
  if (param["current_level"] == param["total_level"]) --m_detections;
}

void Session::Print(const Arrival& arrival) {
  ++m_shown;
  if (!m_canPrint) return;
  m_canPrint = m_show(arrival);
  if (m_canPrint) return;
  ComplainOfOutput();
  m_succeeded = false;
}

void Session::Fail(const std::string& remark) {
  Complain(remark);
  m_succeeded = false;
}

}  // namespace zelctl
