// A run with known secrets through the public doors; then every file, every exported message and
// the memory of the process, once it has used them for the last time, are searched for them, as
// they are and encoded.
//
// The library runs in a child that is forked before the secrets are made, so that only what it was
// given can be found there. What the child holds as a host it overwrites.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <json/value.h>

#include "CommonUtil.h"
#include "Report.h"
#include "cacheDB/ECSData.h"
#include "proxy/ProxyInfo.h"
#include "publicInc/CommonUtilEntry.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "publicInc/CommonUtilTrackData.h"
#include "support/HttpPeers.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using commonutil::CommonUtil;
using commonutil::CommonUtilPrivateManager;

constexpr std::size_t kSecretBytes = 48;
constexpr std::size_t kFragment = 16;
constexpr std::size_t kBufferBytes = 8192;
constexpr unsigned kChildSeconds = 100;

// Where a secret may be found.
enum Place : unsigned { kNowhere = 0, kMemory = 1, kMessages = 2, kLogs = 4 };

enum Which : std::size_t {
  kUserPassword,
  kFacadePassword,
  kHttpPassword,
  kFacadeHttpPassword,
  kBrokenPassword,
  kUploadToken,
  kUploadPassword,
  kEncryptedText,
  kCacheValue,
  kBatchValue,
  kEventArguments,
  kUrlPassword,
  kPathPart,
  kSecrets
};

struct Kind {
  const char* name;
  unsigned places;
};
// What was part of a message stays in memory that the JSON library has freed.
constexpr std::array<Kind, kSecrets> kKinds{{
    {"the user's proxy password, in a request", kMessages | kMemory},
    {"the user's proxy password, through the facade", kMessages | kMemory},
    {"the HTTP library's proxy password, in a request", kMemory},
    {"the HTTP library's proxy password, through the facade", kNowhere},
    {"a password in a request that is cut off", kMemory},
    {"an upload's token", kNowhere},
    {"an upload's proxy password", kNowhere},
    {"a text that was encrypted and decrypted", kNowhere},
    {"a cached value", kMemory},
    {"a cached value of a batch", kMemory},
    {"an event's arguments", kMemory},
    {"the credentials in the server's URL", kMemory},
    {"a part of the data directory's path", kMemory},
}};

using Secrets = std::array<char[kSecretBytes + 1], kSecrets>;

// --- The child: a host of the library ---------------------------------------------------------

class Host {
 public:
  Host(std::string dir, int given, int messages)
      : m_dir(std::move(dir)), m_given(given), m_messages(messages) {}

  void Run() {
    Receive();
    Initialise();
    UseNetwork();
    UseCacheAndTracking();
    Forget();
    // Nothing of the host's is left: its buffers are overwritten, its stack too.
    std::memset(&m_secrets, 0, sizeof m_secrets);
    OverwriteStack();
  }

 private:
  class Receiver : public commonutil::GetProxyCompletedCallback {
   public:
    void onResult(const commonutil::ProxyInfo&) override { m_isDone = true; }
    void Wait() {
      while (!m_isDone) ::usleep(1000);
    }

   private:
    std::atomic<bool> m_isDone{false};
  };

  void Receive() {
    if (::read(m_given, &m_port, sizeof m_port) != sizeof m_port ||
        ::read(m_given, &m_secrets, sizeof m_secrets) != sizeof m_secrets) {
      ::_exit(3);
    }
  }

  // cppcheck-suppress CastIntegerToAddressAtReturn ; an array of characters is indexed
  const char* Secret(Which which) const { return m_secrets[which]; }

  // Through the rings and the service's thread; waits for `replies` and hands them on.
  __attribute__((format(printf, 3, 4))) void Request(int replies, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(m_buffer, sizeof m_buffer, format, arguments);
    va_end(arguments);
    if (CommonUtilRecvMsgImport(m_buffer, std::strlen(m_buffer)) != 1) ::_exit(4);
    std::memset(m_buffer, 0, sizeof m_buffer);
    for (int i = 0; i < replies;) {
      char* message = nullptr;
      if (CommonUtilWaitExportMsg(30000) != 1 || CommonUtilSendMsgExport(&message) != 1) ::_exit(5);
      const std::size_t length = std::strlen(message);
      // A notification is handed on too, and is no reply.
      if (std::strstr(message, "\"rsp\"") != nullptr) ++i;
      if (::write(m_messages, message, length) != static_cast<ssize_t>(length)) ::_exit(6);
      std::memset(message, 0, length);
      CommonUtilFreeExportMsg(message);
    }
  }

  void Initialise() {
    const std::string data = m_dir + "/" + Secret(kPathPart);
    fs::create_directories(data + "/log");
    if (CommonUtilServiceStartup() != 0) ::_exit(7);
    Request(1,
            R"({"cmd":1,"param":{"initParam":{"log_path":"%s/log/","logLevel":3,"logSize":5120,)"
            R"("fileCount":2,"dbPath":"%s"}}})",
            data.c_str(), data.c_str());
  }

  void UseNetwork() {
    const char* const url = "http://name:%s@127.0.0.1:1/";
    char address[256];
    std::snprintf(address, sizeof address, url, Secret(kUrlPassword));
    Request(1,
            R"({"cmd":6,"param":{"proxyServer":"127.0.0.1","proxyPort":%d,"proxyAccount":"user",)"
            R"("proxyAccPswd":"%s","serverURL":"%s"}})",
            m_port, Secret(kUserPassword), address);
    Request(1, R"({"cmd":7,"sno":7})");
    Request(1, R"({"cmd":8,"sno":8,"param":{"localIP":"127.0.0.1"}})");
    Request(0, R"({"cmd":6,"param":{"proxyServer":"x","proxyAccPswd":"%s")",
            Secret(kBrokenPassword));
    Request(0,
            R"({"cmd":15,"param":{"proxy_port":%d},"proxy_domain":"127.0.0.1",)"
            R"("proxy_user_name":"user","proxy_pwd":"%s"})",
            m_port, Secret(kHttpPassword));
    Request(1, R"({"cmd":11})");  // so the ones before have been handled
    (void)CommonUtil::getInst().HttpProxyConnect(1, "127.0.0.1", 1);
    (void)CommonUtil::getInst().HttpSetProxy("127.0.0.1", "user", Secret(kFacadeHttpPassword),
                                             static_cast<unsigned short>(m_port));
    (void)CommonUtil::getInst().HttpProxyConnect(2, "127.0.0.1", 1);

    commonutil::tagZelUtilProxyInfo proxy = {};
    std::snprintf(proxy.server, sizeof proxy.server, "127.0.0.1");
    std::snprintf(proxy.userName, sizeof proxy.userName, "user");
    std::snprintf(proxy.password, sizeof proxy.password, "%s", Secret(kFacadePassword));
    proxy.port = static_cast<std::uint32_t>(m_port);
    (void)CommonUtil::getInst().SetUserInfo(proxy, address, std::strlen(address));
    std::memset(&proxy, 0, sizeof proxy);
    static Receiver& receiver = *new Receiver;
    CommonUtil::getInst().NetworkChange("127.0.0.1", 9, &receiver);
    receiver.Wait();
    std::memset(address, 0, sizeof address);
  }

  void UseCacheAndTracking() {
    CommonUtilPrivateManager& cache = CommonUtilPrivateManager::getInst();
    commonutil::ZelConfigCache row{0, "single", Secret(kCacheValue)};
    (void)cache.SingleAddConfigCache(row);
    row = {0, "batch", Secret(kBatchValue)};
    (void)cache.BatchAddConfigCache(&row, 1);
    int count = 1;
    (void)cache.QueryConfigCacheByKey("batch", &row, &count);

    std::string text = Secret(kEncryptedText);
    const std::string sealed = cache.EncryptThenBase64Encode(text);
    std::memset(text.data(), 0, text.size());
    char opened[256] = {};
    (void)cache.Base64DecodeThenDecrypt(sealed, opened, sizeof opened);
    if (std::strcmp(opened, Secret(kEncryptedText)) != 0) ::_exit(8);
    std::memset(opened, 0, sizeof opened);

    const commonutil::UTUpLoadParam upload("account", Secret(kUploadToken), 1, "server", "/ca", 1,
                                           1, "proxy", "user", Secret(kUploadPassword));
    upload.ToInfoLog();

    Request(1, R"({"cmd":9,"param":{"customParam":{"uploadSwitch":true}}})");
    Request(1, R"({"cmd":3,"param":{"contextParam":{"eventId":"7","args":"%s"}}})",
            Secret(kEventArguments));
    (void)CommonUtil::getInst().UTUploadData();
  }

  // What a user who logs out does.
  void Forget() {
    (void)CommonUtil::getInst().HttpSetProxy("", "", "", 0);
    const commonutil::tagZelUtilProxyInfo none = {};
    (void)CommonUtil::getInst().SetUserInfo(none, "http://127.0.0.1:1/", 19);
    Request(1, R"({"cmd":11})");
    CommonUtilServiceShutDown();
  }

  __attribute__((noinline)) static void OverwriteStack() {
    char below[65536];
    std::memset(below, 0, sizeof below);
    __asm__ volatile("" : : "r"(below) : "memory");
  }

  const std::string m_dir;
  const int m_given;
  const int m_messages;
  int m_port = 0;
  Secrets m_secrets;
  char m_buffer[kBufferBytes] = {};
};

// --- The parent: makes the secrets and searches for them ----------------------------------------

// Characters that each encoding changes.
void Make(Secrets& secrets) {
  static constexpr char kCharacters[] =
      "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz23456789+-=~";
  std::random_device random;
  for (char* const secret : secrets) {
    for (std::size_t i = 0; i < kSecretBytes; ++i) {
      secret[i] = kCharacters[random() % (sizeof kCharacters - 1)];
    }
    secret[kSecretBytes] = '\0';
  }
}

std::string Hex(const std::string& text, const char* format) {
  std::string hex;
  for (const unsigned char byte : text) {
    char digits[4];
    std::snprintf(digits, sizeof digits, format, byte);
    hex += digits;
  }
  return hex;
}

std::string UrlEncoded(const std::string& text) {
  std::string encoded;
  for (const char c : text) {
    const bool isPlain = std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '~';
    encoded += isPlain ? std::string(1, c) : Hex(std::string(1, c), "%%%02X");
  }
  return encoded;
}

std::string Base64(const std::string& text) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string encoded;
  unsigned bits = 0;
  int count = 0;
  for (const unsigned char byte : text) {
    bits = bits << 8 | byte;
    for (count += 8; count >= 6; count -= 6) encoded += kDigits[bits >> (count - 6) & 63];
  }
  return encoded;
}

// The secret and fragments of it, as freed memory holds them, in every encoding.
std::set<std::string> Needles(const std::string& secret) {
  std::set<std::string> needles;
  for (std::size_t at = 0; at + kFragment <= secret.size(); at += kFragment) {
    const std::string part = secret.substr(at, kFragment);
    std::string wide;
    for (const char c : part) wide += {c, '\0'};
    needles.insert({part, Hex(part, "%02x"), Hex(part, "%02X"), UrlEncoded(part), wide});
    // At each of the three places in a group; the digits at the ends depend on their neighbours.
    for (std::size_t skip = 0; skip < 3; ++skip) {
      const std::string whole = Base64(part.substr(skip));
      needles.insert(whole.substr(0, whole.size() - 2));
    }
  }
  return needles;
}

// What surrounds the first of the needles, empty without one.
std::string Around(const std::string& text, const std::set<std::string>& needles) {
  constexpr std::size_t kBefore = 48;
  for (const std::string& needle : needles) {
    const std::size_t at = text.find(needle);
    if (at == std::string::npos) continue;
    std::string around = text.substr(at - std::min(at, kBefore), kBefore + 2 * kSecretBytes);
    for (char& c : around) c = std::isprint(static_cast<unsigned char>(c)) != 0 ? c : '.';
    return around;
  }
  return {};
}

bool Holds(const std::string& text, const std::set<std::string>& needles) {
  return !Around(text, needles).empty();
}

// All memory of the process that it has written, by the name of its mapping.
std::map<std::string, std::string> MemoryOf(pid_t process) {
  const std::string proc = "/proc/" + std::to_string(process);
  std::ifstream maps(proc + "/maps");
  const int memory = ::open((proc + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  std::map<std::string, std::string> found;
  for (std::string line; std::getline(maps, line);) {
    unsigned long begin = 0;
    unsigned long end = 0;
    char mode[5] = {};
    if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, mode) != 3) continue;
    if (mode[0] != 'r' || mode[1] != 'w') continue;
    std::string content(end - begin, '\0');
    const ssize_t size = ::pread(memory, content.data(), content.size(), static_cast<off_t>(begin));
    if (size > 0) found[line] = content;
  }
  (void)::close(memory);
  return found;
}

struct Sought {
  std::string name;
  std::set<std::string> needles;
  unsigned places;
  std::string file;  // the one kind of file that may hold it
};

class Search {
 public:
  Search(campaign::Report& report, std::vector<Sought> sought)
      : m_report(report), m_sought(std::move(sought)) {}

  void In(const std::string& text, const std::string& where, unsigned place,
          const std::string& file = "-") {
    ++m_searched;
    for (const Sought& secret : m_sought) {
      if ((secret.places & place) != 0 || secret.file == file) continue;
      const std::string around = Around(text, secret.needles);
      if (!around.empty()) m_report.Find(secret.name + " is in " + where + ": " + around);
    }
  }

  long long Searched() const { return m_searched; }

 private:
  campaign::Report& m_report;
  const std::vector<Sought> m_sought;
  long long m_searched = 0;
};

// The keys that the library made for itself, taken from its files.
std::vector<Sought> OwnKeys(const std::string& data) {
  constexpr std::size_t kKeyOffset = 8;
  constexpr std::size_t kKeyBytes = 32;
  const std::string store = support::ReadWholeFile(data + "/zorm/zormStore.dat");
  const std::string storeKey = store.substr(kKeyOffset, kKeyBytes);
  commonutil::ECSUtil& keys = commonutil::ECSUtil::GetInst();
  keys.SetDBPath(data + "/");
  keys.SetLogPath(data + "/log/");
  (void)keys.StartZORM();
  const std::string line = keys.GetDBKeySalt();
  const std::string random = keys.DecryptZorm(line.substr(0, line.find('|')));
  keys.SetDBKeySalt(random, line.substr(line.find('|') + 1), line);
  const std::string databaseKey = keys.GetPwdKeyFromORB();
  (void)keys.StopZORM();
  if (random.empty() || databaseKey.empty()) std::abort();
  return {{"the key store's key", Needles(storeKey), kNowhere, ".dat"},
          {"the database's secret", Needles(random), kNowhere, "-none"},
          {"the database's key", Needles(databaseKey), kMemory, "-none"}};
}

std::string ReadAll(int from) {
  std::string all;
  char block[4096];
  for (ssize_t size = 0; (size = ::read(from, block, sizeof block)) > 0;) {
    all.append(block, static_cast<std::size_t>(size));
  }
  return all;
}

void WriteAll(int to, const void* data, std::size_t size) {
  if (::write(to, data, size) != static_cast<ssize_t>(size)) std::abort();
}

}  // namespace

int main(int argc, char** argv) {
  campaign::Report report("secrets", 0, argc, argv);
  const support::TempDir dir;
  int given[2];
  int messages[2];
  if (::pipe(given) != 0 || ::pipe(messages) != 0) return 2;
  const pid_t child = ::fork();
  if (child == 0) {
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)::alarm(kChildSeconds);
    (void)::setenv("OTEL_EXPORTER_OTLP_ENDPOINT", "http://127.0.0.1:1", 1);  // keeps the events
    static Host& host = *new Host(dir.Path(), given[0], messages[1]);
    host.Run();
    (void)::close(messages[1]);
    for (;;) (void)::pause();
  }
  (void)::close(messages[1]);

  Secrets secrets;
  Make(secrets);
  const auto proxy = support::StartTinyproxy(support::ProxyAccess::kOpen);
  const int port = proxy->Port();
  WriteAll(given[1], &port, sizeof port);
  WriteAll(given[1], &secrets, sizeof secrets);
  const std::string exported = ReadAll(messages[0]);
  if (::waitpid(child, nullptr, WNOHANG) != 0) {
    report.Find("the library's process has ended");
    return report.End(0);
  }

  const std::string data = dir.File(secrets[kPathPart]);
  const std::map<std::string, std::string> memory = MemoryOf(child);
  (void)::kill(child, SIGKILL);
  (void)::waitpid(child, nullptr, 0);

  std::vector<Sought> sought = OwnKeys(data);
  for (std::size_t i = 0; i < kSecrets; ++i) {
    sought.push_back({kKinds[i].name, Needles(secrets[i]), kKinds[i].places, "-none"});
  }
  // What must be found, else nothing has been searched.
  if (!Holds(exported, Needles(secrets[kUserPassword])))
    report.Find("the messages were not searched");
  std::size_t bytes = 0;
  bool isCached = false;
  for (const auto& [mapping, content] : memory) {
    bytes += content.size();
    isCached = isCached || Holds(content, Needles(secrets[kCacheValue]));
  }
  if (!isCached) report.Find("the memory was not searched");

  Search search(report, std::move(sought));
  search.In(exported, "an exported message", kMessages);
  for (const auto& [mapping, content] : memory) search.In(content, "memory: " + mapping, kMemory);
  for (const auto& entry : fs::recursive_directory_iterator(data)) {
    if (!entry.is_regular_file()) continue;
    const bool isLog = entry.path().parent_path().filename() == "log";
    search.In(support::ReadWholeFile(entry.path().string()),
              "the file " + entry.path().string().substr(data.size()), isLog ? kLogs : kNowhere,
              entry.path().extension().string());
  }
  std::printf("searched %lld files, mappings and messages, %zu MB of memory\n", search.Searched(),
              bytes >> 20);
  return report.End(search.Searched());
}
