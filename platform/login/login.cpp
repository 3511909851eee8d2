// Audit requests one after the other on a thread of this library, and terminal parameters.
#include "zel_platform/login.h"

#include <pthread.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "config/settings.h"
#include "login/AuditRequest.h"
#include "login/login_ref.h"
#include "zel_platform/logger.h"

namespace {

constexpr std::size_t kMostWaiting = 256;
constexpr char kBaseAddress[] = "audit.baseAddress";
constexpr char kThreadName[] = "zel_audit";
constexpr std::size_t kSmartroomBytes = 32;

struct Login {
  std::mutex lock;
  std::condition_variable added;
  std::deque<std::function<void()>> tasks;
  bool hasThread = false;
  unsigned int uploads = 0;
  char smartroom[kSmartroomBytes] = {};
  tagCONFCTRL_TERMINAL_PUBLIC_SDK terminal{};

  std::atomic<AuditUploadReceiver> upload{nullptr};
  std::atomic<AuditReceiver> report{nullptr};
  std::atomic<AuditReceiver> query{nullptr};
};

// Never destroyed: its thread runs until the process ends.
Login& TheLogin() {
  static Login* const instance = new Login;
  return *instance;
}

template <std::size_t N>
bool IsTerminated(const char (&text)[N]) {
  return ::strnlen(text, N) < N;
}

// The host's signals are for its own threads.
void BlockSignals() {
  sigset_t all;
  (void)::sigfillset(&all);
  (void)::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

void Serve() {
  Login& login = TheLogin();
  (void)::pthread_setname_np(::pthread_self(), kThreadName);  // works without a name as well
  BlockSignals();
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> hold(login.lock);
      login.added.wait(hold, [&login] { return !login.tasks.empty(); });
      task.swap(login.tasks.front());
      login.tasks.pop_front();
    }
    try {
      task();
    } catch (const std::exception&) {  // no memory for this one
    }
  }
}

// `make` is called with the lock held and gives the task.
template <class Make>
int TryEnqueue(Make make) {
  const std::string base = orb_config_text(kBaseAddress, "");
  if (base.empty()) {
    LogStream::GetLogStream("native_sdk", LOGGER_LEVEL_WARNING, 0, "platform/login/login",
                            "TryEnqueue", __LINE__)
        << "audit: no base address is set, nothing is sent";
    return kLoginNoBaseAddress;
  }
  Login& login = TheLogin();
  const std::lock_guard<std::mutex> hold(login.lock);
  if (login.tasks.size() >= kMostWaiting) return kLoginQueueFull;
  if (!login.hasThread) {
    std::thread(&Serve).detach();
    login.hasThread = true;
  }
  login.tasks.push_back(make(login, base));
  login.added.notify_one();
  return 0;
}

// The callers have C linkage: no exception gets to them.
template <class Make>
int Enqueue(Make make) {
  try {
    return TryEnqueue(make);
  } catch (const std::system_error&) {
    return kLoginNoThread;
  } catch (const std::bad_alloc&) {
    return kLoginNoMemory;
  }
}

void AnswerUpload(unsigned int id, void* user, const AuditUploadAnswer& answer) {
  const AuditUploadReceiver receiver = TheLogin().upload.load();
  const tagLOGIN_AUDIT_UPLOAD_RESULT result = {answer.code, answer.fileId.c_str(),
                                               answer.message.c_str()};
  if (receiver != nullptr) receiver(id, answer.code, user, &result);
}

void AnswerReport(unsigned int id, void* user, const AuditReportAnswer& answer) {
  const AuditReceiver receiver = TheLogin().report.load();
  const tagLOGIN_AUDIT_REPORT_RESULT result = {answer.value, answer.text.c_str()};
  if (receiver != nullptr) receiver(id, user, &result);
}

void AnswerQuery(unsigned int id, void* user, const AuditQueryAnswer& answer) {
  std::vector<tagLOGIN_AUDIT_QUERY_ENTRY> entries;
  for (const AuditQueryAnswer::Entry& entry : answer.entries) {
    entries.push_back({entry.value, entry.text.c_str(), entry.value8});
  }
  const AuditReceiver receiver = TheLogin().query.load();
  const tagLOGIN_AUDIT_QUERY_RESULT result = {static_cast<std::uint32_t>(entries.size()),
                                              entries.data()};
  if (receiver != nullptr) receiver(id, user, &result);
}

}  // namespace

int orb_login_upload_audit_file(const tagLOGIN_AUDIT_UPLOAD* record) {
  if (record == nullptr || !IsTerminated(record->path) || !IsTerminated(record->name)) {
    return kLoginBadArgument;
  }
  return Enqueue([record](Login& login, const std::string& base) {
    return [id = ++login.uploads, base, request = *record] {
      AnswerUpload(id, request.user, UploadAuditFile(base, request));
    };
  });
}

int orb_login_report_audit_task(const tagLOGIN_AUDIT_REPORT* record) {
  if (record == nullptr || !IsTerminated(record->text)) return kLoginBadArgument;
  return Enqueue([record](Login&, const std::string& base) {
    return [base, request = *record] {
      AnswerReport(request.id, request.user, ReportAuditTask(base, request));
    };
  });
}

int orb_login_query_audit_task(const tagLOGIN_AUDIT_QUERY* record) {
  if (record == nullptr || !IsTerminated(record->text)) return kLoginBadArgument;
  return Enqueue([record](Login&, const std::string& base) {
    return [base, request = *record] {
      AnswerQuery(request.id, request.user, QueryAuditTask(base, request));
    };
  });
}

// There is no smart room here: the text is only kept.
int orb_login_set_smartroom_param(const char* text) {
  if (text == nullptr) return kLoginBadArgument;
  const std::size_t length = ::strnlen(text, kSmartroomBytes);
  if (length == kSmartroomBytes) return kLoginBadArgument;
  Login& login = TheLogin();
  const std::lock_guard<std::mutex> hold(login.lock);
  ::memcpy(login.smartroom, text, length + 1);
  return 0;
}

int orb_confctrl_set_terminal_public_sdk_param(const tagCONFCTRL_TERMINAL_PUBLIC_SDK* record) {
  if (record == nullptr || !IsTerminated(record->uuid) || !IsTerminated(record->account) ||
      !IsTerminated(record->gantryIp) || !IsTerminated(record->sbcIp)) {
    return kLoginBadArgument;
  }
  Login& login = TheLogin();
  const std::lock_guard<std::mutex> hold(login.lock);
  login.terminal = *record;
  return 0;
}

void orb_login_reg_audit_callbacks(AuditUploadReceiver upload, AuditReceiver report,
                                   AuditReceiver query) {
  Login& login = TheLogin();
  login.upload.store(upload);
  login.report.store(report);
  login.query.store(query);
}

std::string orb_login_ref_smartroom_param() {
  Login& login = TheLogin();
  const std::lock_guard<std::mutex> hold(login.lock);
  return login.smartroom;
}

tagCONFCTRL_TERMINAL_PUBLIC_SDK orb_login_ref_terminal_param() {
  Login& login = TheLogin();
  const std::lock_guard<std::mutex> hold(login.lock);
  return login.terminal;
}
