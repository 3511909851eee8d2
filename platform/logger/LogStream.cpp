// Line layout: local time with milliseconds, thread id, level letter, module, then file,
// function and line in brackets, then the message:
//   2031-05-04 10:11:12.345 4711 I [native_sdk] [commonutil/util/MsgMgr Exec:42] text
#include <pthread.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "logger/FormatText.h"
#include "logger/LogModules.h"
#include "logger/SensitiveWords.h"
#include "logger/logger_ref.h"
#include "zel_platform/logger.h"

namespace {

constexpr char kSystemModule[] = "native_sdk";  // takes the lines of the system log
constexpr int kUnusableFile = 1;
constexpr std::size_t kNumberTextMax = 48;
constexpr int kDoubleDigits = 6;
constexpr std::size_t kUsualLineBytes = 256;
// A longer line's memory is given back.
constexpr std::size_t kSpareLineBytesMax = std::size_t{16} * 1024;

// Per thread and without a destructor: destructors of other thread-local objects may log.
struct ThreadFacts {
  pid_t threadId;
  time_t second;
  std::size_t secondLength;
  char secondText[32];  // "2031-05-04 10:11:12" of `second`
  bool inSink;
};
thread_local ThreadFacts t_facts;

// Keeps one finished line per thread for reuse. The key's destructor frees it with the
// thread; a line logged still later makes a new one.
class SpareLines {
 public:
  using Destructor = void (*)(void*);

  explicit SpareLines(Destructor destructor)
      : m_usable(::pthread_key_create(&m_key, destructor) == 0) {
    (void)::pthread_atfork(nullptr, nullptr, [] { t_facts.threadId = 0; });
  }
  void* Take() const {
    if (!m_usable) return nullptr;
    void* spare = ::pthread_getspecific(m_key);
    if (spare != nullptr) (void)::pthread_setspecific(m_key, nullptr);
    return spare;
  }
  // False when the caller keeps the line.
  bool Give(void* line) const {
    return m_usable && ::pthread_getspecific(m_key) == nullptr &&
           ::pthread_setspecific(m_key, line) == 0;
  }

 private:
  pthread_key_t m_key{};
  const bool m_usable;
};

struct SinkSlot {
  std::mutex lock;
  std::shared_ptr<const LogSink> sink;  // guarded by lock
  std::atomic<bool> isSet{false};       // written under lock; spares other lines the lock
};

SinkSlot& Sink() {
  static SinkSlot& slot = *new SinkSlot;
  return slot;
}

std::shared_ptr<const LogSink> CurrentSink() {
  SinkSlot& slot = Sink();
  if (!slot.isSet.load(std::memory_order_acquire)) return nullptr;
  const std::lock_guard<std::mutex> held(slot.lock);
  return slot.sink;
}

const char* OrEmpty(const char* text) { return text == nullptr ? "" : text; }

// The text of a number. `format` is what std::to_chars takes after the value; no locale is
// involved.
class NumberText {
 public:
  template <class Number, class... Format>
  explicit NumberText(Number value, Format... format)
      : m_end(std::to_chars(m_text, m_text + sizeof(m_text), value, format...).ptr) {}
  std::string_view View() const { return {m_text, static_cast<std::size_t>(m_end - m_text)}; }

 private:
  char m_text[kNumberTextMax] = {};
  const char* const m_end;
};

void AppendTime(const timespec& now, std::string* out) {
  if (t_facts.secondLength == 0 || t_facts.second != now.tv_sec) {
    tm local{};
    (void)::localtime_r(&now.tv_sec, &local);  // all zero when the year does not fit
    t_facts.second = now.tv_sec;
    t_facts.secondLength =
        ::strftime(t_facts.secondText, sizeof(t_facts.secondText), "%Y-%m-%d %H:%M:%S", &local);
  }
  const long milliseconds = now.tv_nsec / 1000000;
  const char fraction[] = {'.', static_cast<char>('0' + milliseconds / 100),
                           static_cast<char>('0' + milliseconds / 10 % 10),
                           static_cast<char>('0' + milliseconds % 10), ' '};
  out->append(t_facts.secondText, t_facts.secondLength);
  out->append(fraction, sizeof(fraction));
}

void AppendThreadId(std::string* out) {
  if (t_facts.threadId == 0) t_facts.threadId = ::gettid();
  *out += NumberText(t_facts.threadId).View();
}

// Everything the functions of C linkage log; their lines carry no source position.
__attribute__((format(printf, 4, 0))) void WriteFormatted(const char* module, int level,
                                                          const char* function, const char* fmt,
                                                          va_list arguments) {
  try {
    LogStream::GetLogStream(module, level, 0, "", function, 0) << FormatText(fmt, arguments);
  } catch (...) {  // no memory for the text; the line is then written empty
  }
}

char LevelLetter(int level) {
  constexpr char kLetters[] = "EWID";
  return kLetters[std::clamp<int>(level, LOGGER_LEVEL_ERROR, LOGGER_LEVEL_DEBUG)];
}

void CallSink(const LogSink& sink, const LogSinkLine& line) noexcept {
  t_facts.inSink = true;
  try {
    sink(line);
  } catch (...) {  // a faulty sink is no concern of whoever logs
  }
  t_facts.inSink = false;
}

}  // namespace

struct LogStream::Line {
  LogModule* module = nullptr;
  int level = 0;
  int checkLevel = 0;
  const char* file = "";
  const char* function = "";
  int lineNumber = 0;
  std::string message;  // as streamed, secrets included; wiped before the line is kept
  std::string output;   // header, text, newline

  // Null when there is no memory.
  static std::unique_ptr<Line> Take() noexcept;
  static void GiveBack(std::unique_ptr<Line> line) noexcept;

  // Without memory the message stays as it is.
  void Append(std::string_view piece) noexcept;
  template <class Number, class... Format>
  void AppendValue(Number value, Format... format) noexcept;
  void Write();

 private:
  static const SpareLines& Spares();
  void AppendHeader(const timespec& now);
};

const SpareLines& LogStream::Line::Spares() {
  static const SpareLines& spares =
      *new SpareLines([](void* spare) { delete static_cast<Line*>(spare); });
  return spares;
}

std::unique_ptr<LogStream::Line> LogStream::Line::Take() noexcept try {
  std::unique_ptr<Line> line(static_cast<Line*>(Spares().Take()));
  if (line != nullptr) return line;
  line = std::make_unique<Line>();
  line->message.reserve(kUsualLineBytes);
  return line;
} catch (...) {
  return nullptr;
}

void LogStream::Line::GiveBack(std::unique_ptr<Line> line) noexcept {
  ::explicit_bzero(line->message.data(), line->message.size());
  line->message.clear();
  line->output.clear();
  const std::size_t largest = std::max(line->message.capacity(), line->output.capacity());
  if (largest <= kSpareLineBytesMax && Spares().Give(line.get())) (void)line.release();
}

void LogStream::Line::Append(std::string_view piece) noexcept try {
  const std::size_t length = message.size() + piece.size();
  if (length > message.capacity()) {  // the string would leave its old memory as it is
    std::string larger;
    larger.reserve(std::max(length, 2 * message.capacity()));
    larger = message;
    message.swap(larger);
    ::explicit_bzero(larger.data(), larger.size());
  }
  message += piece;
} catch (...) {
}

template <class Number, class... Format>
void LogStream::Line::AppendValue(Number value, Format... format) noexcept {
  Append(NumberText(value, format...).View());
}

void LogStream::Line::AppendHeader(const timespec& now) {
  AppendTime(now, &output);
  AppendThreadId(&output);
  output += ' ';
  output += LevelLetter(level);
  output += " [";
  output += module->Name();
  output += "] [";
  output += file;
  output += ' ';
  output += function;
  output += ':';
  output += NumberText(lineNumber).View();
  output += "] ";
}

void LogStream::Line::Write() {
  timespec now{};
  (void)::clock_gettime(CLOCK_REALTIME, &now);  // cannot fail with this clock
  AppendHeader(now);
  const std::size_t textBegin = output.size();
  SensitiveWords::Instance().AppendMasked(message, SensitiveWords::Controls::kEscape, &output);
  const std::size_t textEnd = output.size();
  output += '\n';
  module->Write(output, static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000);

  if (t_facts.inSink) return;
  const std::shared_ptr<const LogSink> sink = CurrentSink();
  if (sink == nullptr) return;
  const std::string text = output.substr(textBegin, textEnd - textBegin);
  CallSink(*sink, {module->Name().c_str(), level, checkLevel, file, function, lineNumber, text});
}

LogStream LogStream::GetLogStream(const char* module, int level, int checkLevel, const char* file,
                                  const char* function, int line) {
  try {
    LogModule* target = LogModules::Instance().Find(module);
    if (target == nullptr || !target->Takes(level)) return LogStream(nullptr);
    std::unique_ptr<Line> begun = Line::Take();
    if (begun == nullptr) return LogStream(nullptr);
    begun->module = target;
    begun->level = level;
    begun->checkLevel = checkLevel;
    begun->file = OrEmpty(file);
    begun->function = OrEmpty(function);
    begun->lineNumber = line;
    return LogStream(std::move(begun));
  } catch (...) {  // no memory for the module
    return LogStream(nullptr);
  }
}

LogStream::LogStream(std::unique_ptr<Line> line) : m_line(std::move(line)) {}

LogStream::LogStream(LogStream&& other) noexcept = default;

LogStream::~LogStream() {
  if (m_line == nullptr) return;
  try {
    m_line->Write();
  } catch (...) {  // no memory for the line
  }
  Line::GiveBack(std::move(m_line));
}

LogStream& LogStream::operator<<(const char* text) {
  if (m_line != nullptr && text != nullptr) m_line->Append(text);
  return *this;
}

LogStream& LogStream::operator<<(const std::string& text) {
  if (m_line != nullptr) m_line->Append(text);
  return *this;
}

LogStream& LogStream::operator<<(char value) {
  if (m_line != nullptr) m_line->Append(std::string_view(&value, 1));
  return *this;
}

LogStream& LogStream::operator<<(bool value) {
  if (m_line != nullptr) m_line->Append(value ? "1" : "0");
  return *this;
}

LogStream& LogStream::operator<<(const void* value) {
  if (m_line == nullptr) return *this;
  char text[kNumberTextMax] = "0x";
  const auto number = reinterpret_cast<std::uintptr_t>(value);
  const char* end = std::to_chars(text + 2, text + sizeof(text), number, 16).ptr;
  m_line->Append(std::string_view(text, static_cast<std::size_t>(end - text)));
  return *this;
}

LogStream& LogStream::operator<<(int value) {
  if (m_line != nullptr) m_line->AppendValue(value);
  return *this;
}

LogStream& LogStream::operator<<(unsigned int value) {
  if (m_line != nullptr) m_line->AppendValue(value);
  return *this;
}

LogStream& LogStream::operator<<(double value) {
  if (m_line != nullptr) m_line->AppendValue(value, std::chars_format::general, kDoubleDigits);
  return *this;
}

LogStream& LogStream::operator<<(long value) {
  if (m_line != nullptr) m_line->AppendValue(value);
  return *this;
}

LogStream& LogStream::operator<<(unsigned long value) {
  if (m_line != nullptr) m_line->AppendValue(value);
  return *this;
}

LogStream& LogStream::operator<<(long long value) {
  if (m_line != nullptr) m_line->AppendValue(value);
  return *this;
}

LogStream& LogStream::operator<<(unsigned long long value) {
  if (m_line != nullptr) m_line->AppendValue(value);
  return *this;
}

int LogStream::InitLog(const char* module, const char* file, int sizeKb, int oldFiles, int level) {
  try {
    LogModule& target = LogModules::Instance().FindForOpening(module);
    return target.Open(OrEmpty(file), sizeKb, oldFiles, level) ? 0 : kUnusableFile;
  } catch (...) {  // no memory
    return kUnusableFile;
  }
}

void LogStream::UnInitLog(const char* module) {
  try {
    LogModule* target = LogModules::Instance().Find(module);
    if (target != nullptr) target->Close();
  } catch (...) {  // no memory for a module nobody knew: nothing is open
  }
}

void LogStream::AddSensitiveWord(const std::string& word, const char* /*regulation*/) {
  try {
    SensitiveWords::Instance().Add(word);
  } catch (...) {  // no memory; the contract has no way to report it
  }
}

std::string LogStream::FilterWord(const std::string& text, int /*regulation*/) {
  try {
    std::string filtered = text;
    const std::size_t length = text.size();
    const std::size_t keptHead = length < 4 ? 0 : length < 14 ? 1 : 2;
    const std::size_t keptTail = length < 6 ? 0 : length < 14 ? 1 : 3;
    std::fill(filtered.begin() + static_cast<std::ptrdiff_t>(keptHead),
              filtered.end() - static_cast<std::ptrdiff_t>(keptTail), '*');
    return filtered;
  } catch (...) {  // no memory
    return {};
  }
}

void LogOneLog_WriteSystemLog(const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  WriteFormatted(kSystemModule, LOGGER_LEVEL_INFO, function, fmt, arguments);
  va_end(arguments);
}

void LogOneLog_Write_EX(const char* module, int level, const char* function, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  WriteFormatted(module, level, function, fmt, arguments);
  va_end(arguments);
}

void logger_ref_set_sink(LogSink sink) {
  auto replacement = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  SinkSlot& slot = Sink();
  const std::lock_guard<std::mutex> held(slot.lock);
  slot.sink.swap(replacement);  // the old one ends after the lock
  slot.isSet.store(slot.sink != nullptr, std::memory_order_release);
}

void logger_ref_reset() {
  logger_ref_set_sink(nullptr);
  LogModules::Instance().ResetAll();
  SensitiveWords::Instance().Forget();
}
