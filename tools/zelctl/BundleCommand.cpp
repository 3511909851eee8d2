#include "BundleCommand.h"

#include <archive.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>

#include <curl/curl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/version.h>
#include <openssl/crypto.h>
#include <sqlite3.h>

#include "BundleArchive.h"
#include "BundleLogs.h"
#include "BundleMask.h"
#include "DataFiles.h"
#include "DirectoryLock.h"
#include "DoctorCommand.h"
#include "Examination.h"
#include "Options.h"
#include "Progress.h"
#include "Report.h"
#include "Signals.h"
#include "Text.h"
#include "publicInc/CommonUtilEntry.h"

namespace zelctl {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kDefaultCap = std::uint64_t{20} * 1024 * 1024;
constexpr std::uint64_t kLeastCap = std::uint64_t{64} * 1024;
constexpr std::uint64_t kMostCap = 1024ULL * 1024 * 1024 * 1024;
constexpr std::uint64_t kManifestBytes = std::uint64_t{32} * 1024;  // kept free for it
constexpr off_t kLargestSettings = off_t{1024} * 1024;
constexpr std::size_t kMostFiles = 10000;
constexpr std::size_t kMostLeftOut = 50;
constexpr unsigned int kModeBits = 07777;
constexpr char kLogFolder[] = "log";
constexpr char kLogEnd[] = ".txt";
constexpr char kPlainSettings[] = "config.txt";
constexpr const char* kJsonSettings[] = {"platform.json", "sdkCommonConfig.json"};

// What is never taken, by its place in the data directory.
struct NeverTaken {
  const char* name;
  const char* reason;
};
constexpr NeverTaken kNeverTaken[] = {
    {kKeyStoreFolder, "the key store"},
    {kSaltFile, "the secret of the database's key"},
    {kDatabaseFile, "the database, which holds values"},
    {kJournalFile, "part of the database"},
    {kWriteAheadFile, "part of the database"},
    {kSharedIndexFile, "part of the database"},
    {"track", "the spool of events"},
    {"ut_events.jsonl", "events"},
};

struct BundleArguments {
  std::string directory, archive, logs;
  std::uint64_t cap = kDefaultCap;
  bool isForced = false, isListing = false, asJson = false;
};

std::uint64_t ParseSize(const std::string& text) {
  const std::map<std::string, std::uint64_t> units = {
      {"", 1}, {"K", 1024}, {"M", 1024 * 1024}, {"G", 1024 * 1024 * 1024}};
  const std::size_t end = std::min(text.find_first_not_of("0123456789"), text.size());
  const auto unit = units.find(text.substr(end));
  if (end > 0 && end < 13 && unit != units.end()) {
    const std::uint64_t size = std::stoull(text.substr(0, end)) * unit->second;
    if (size >= kLeastCap && size <= kMostCap) return size;
  }
  throw UsageError("--max-size needs a size from 64K to 1024G such as 20M, not " + Quoted(text));
}

void CheckArchiveName(const BundleArguments& parsed) {
  if (parsed.isListing && parsed.archive.empty()) return;
  if (parsed.archive.empty()) {
    throw UsageError(
        "bundle needs DIR and OUT.tar.gz, or DIR and --list; see zelctl bundle --help");
  }
  struct stat found;
  if (parsed.isListing || ::lstat(parsed.archive.c_str(), &found) != 0) return;
  if (!parsed.isForced || S_ISDIR(found.st_mode)) {
    throw UsageError(Quoted(parsed.archive) + " exists; name a new file" +
                     (S_ISDIR(found.st_mode) ? "" : ", or use --force to replace it"));
  }
}

BundleArguments ParseBundle(const std::vector<std::string>& arguments) {
  BundleArguments parsed;
  std::vector<std::string> words;
  std::string size;
  const std::map<std::string, std::string*> values = {{"--max-size", &size},
                                                      {"--logs", &parsed.logs}};
  const std::map<std::string, bool*> flags = {
      {"--force", &parsed.isForced}, {"--list", &parsed.isListing}, {"--json", &parsed.asJson}};
  for (auto next = arguments.begin(); next != arguments.end(); ++next) {
    const std::string name = next->substr(0, next->find('='));
    if (const auto flag = flags.find(*next); flag != flags.end()) {
      *flag->second = true;
    } else if (const auto value = values.find(name); value != values.end()) {
      const bool isJoined = name.size() < next->size();
      if (!isJoined && std::next(next) == arguments.end())
        throw UsageError(name + " needs a value");
      *value->second = isJoined ? next->substr(name.size() + 1) : *++next;
      if (value->second->empty()) throw UsageError(name + " needs a value");
    } else if (next->empty() || next->front() == '-' || words.size() == 2) {
      throw UsageError("bundle does not take " + Quoted(*next) + "; see zelctl bundle --help");
    } else {
      words.push_back(*next);
    }
  }
  if (words.empty()) throw UsageError("bundle needs DIR and OUT.tar.gz; see zelctl bundle --help");
  parsed.directory = words[0];
  if (words.size() == 2) parsed.archive = words[1];
  for (const std::string& directory : {parsed.directory, parsed.logs}) {
    if (!directory.empty()) CheckClientDirectory(directory);
  }
  if (!size.empty()) parsed.cap = ParseSize(size);
  CheckArchiveName(parsed);
  return parsed;
}

// Harmless in a path, on a terminal and in JSON.
std::string SafeName(const std::string& name) {
  std::string safe;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > 0x20 && byte < 0x7f && c != '%' && c != '\\' && c != '"') {
      safe += c;
      continue;
    }
    char escaped[4] = "";
    (void)std::snprintf(escaped, sizeof(escaped), "%%%02X", byte);
    safe += escaped;
  }
  return safe;
}

bool EndsIn(const std::string& text, const std::string& end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// A regular file that is no link; -1 for anything else.
int OpenRegular(const std::string& path) {
  const int descriptor =
      ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  struct stat facts;
  if (descriptor >= 0 && ::fstat(descriptor, &facts) == 0 && S_ISREG(facts.st_mode)) {
    return descriptor;
  }
  if (descriptor >= 0) ::close(descriptor);
  return -1;
}

std::string ReadAll(int descriptor) {
  std::string text;
  char buffer[65536];
  for (ssize_t count; (count = ::read(descriptor, buffer, sizeof(buffer))) > 0;) {
    text.append(buffer, static_cast<std::size_t>(count));
    if (static_cast<off_t>(text.size()) > kLargestSettings) break;
  }
  return text;
}

std::string Distribution() {
  std::ifstream file("/etc/os-release");
  constexpr char kName[] = "PRETTY_NAME=";
  for (std::string line; std::getline(file, line);) {
    if (line.compare(0, sizeof(kName) - 1, kName) != 0) continue;
    line.erase(0, sizeof(kName) - 1);
    line.erase(std::remove(line.begin(), line.end(), '"'), line.end());
    return line;
  }
  return "unknown";
}

Json::Value Versions() {
  Json::Value value(Json::objectValue);
  struct utsname system = {};
  (void)::uname(&system);  // fails only for a bad address
  value["library"] = CommonUtilVersion();
  value["platform"] = "reference";
  value["sqlite"] = sqlite3_libversion();
  value["openssl"] = OpenSSL_version(OPENSSL_VERSION);
  value["libcurl"] = curl_version();
  value["jsoncpp"] = JSONCPP_VERSION_STRING;
  value["libarchive"] = archive_version_string();
  value["kernel"] = std::string(system.sysname) + " " + system.release;
  value["machine"] = system.machine;
  value["distribution"] = Distribution();
  return value;
}

const char* TypeOf(mode_t mode) {
  if (S_ISREG(mode)) return "file";
  if (S_ISDIR(mode)) return "directory";
  return S_ISLNK(mode) ? "link" : "other";
}

class Bundle {
 public:
  Bundle(const BundleArguments& arguments, const std::atomic<bool>& interrupted, Progress* progress)
      : m_arguments(arguments), m_interrupted(interrupted), m_progress(progress), m_logs(m_mask) {}

  // Everything but the archive. The words to take out are gathered before the first text is.
  void Collect() {
    for (const char* const name : kJsonSettings) ReadSettings(name);
    ReadSettings(kPlainSettings);
    AddSaltWords();
    Examine();
    AddSettings();
    AddDocument("versions.json", Versions());
    AddDocument("files.json", Files());
    AddLogs();
  }

  std::uint64_t Write() const {
    return m_parts.Write(m_arguments.archive, m_arguments.isForced, JsonText(Manifest()),
                         [this] { Check(); });
  }

  Json::Value Manifest() const {
    Json::Value value(Json::objectValue);
    value["made"] = TimeText(std::time(nullptr));
    value["maxBytes"] = static_cast<Json::UInt64>(m_arguments.cap);
    value["files"] = Json::Value(Json::arrayValue);
    for (const BundlePart& part : m_parts.Parts()) value["files"].append(PartJson(part));
    value["leftOut"] = Json::Value(Json::arrayValue);
    for (const auto& [name, reason] : m_leftOut) {
      Json::Value one(Json::objectValue);
      one["name"] = name;
      one["reason"] = reason;
      value["leftOut"].append(one);
    }
    value["leftOutMore"] = static_cast<Json::UInt64>(m_leftOutMore);
    return value;
  }

  std::string Listing() const {
    constexpr auto kRight = Table::Align::kRight;
    Table table({{"NAME"}, {"BYTES", kRight}, {"LINES", kRight}, {"REMOVED", kRight}, {""}});
    Removals all = {};
    for (const BundlePart& part : m_parts.Parts()) {
      std::size_t removed = 0;
      for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] += part.removals[i];
        removed += part.removals[i];
      }
      table.Add({part.name, std::to_string(part.size), std::to_string(part.lines),
                 std::to_string(removed),
                 part.linesLeftOut == 0
                     ? ""
                     : std::to_string(part.linesLeftOut) + " older lines left out"});
    }
    std::string text = table.Text();
    const Json::Value removals = RemovalsJson(all);
    if (!removals.empty()) {
      std::string kinds;
      for (const std::string& name : removals.getMemberNames()) {
        kinds += (kinds.empty() ? "" : ", ") + removals[name].asString() + " " + name;
      }
      text += "\n" + Wrapped("removed: " + kinds, 9) + '\n';
    }
    if (!m_leftOut.empty()) text += "\nleft out:\n";
    for (const auto& [name, reason] : m_leftOut) {
      text += "  " + Wrapped(name + ": " + reason, 4) + '\n';
    }
    if (m_leftOutMore > 0) text += "  and " + std::to_string(m_leftOutMore) + " more\n";
    return text;
  }

 private:
  struct Settings {
    std::string name;
    long long writtenAt = 0;
    std::string text;
    std::optional<Json::Value> document;
  };

  void Check() const {
    if (m_interrupted) throw Interrupted("; nothing was written");
  }

  std::string PathOf(const std::string& name) const { return m_arguments.directory + "/" + name; }

  void LeaveOut(const std::string& name, const std::string& reason) {
    if (m_leftOut.size() >= kMostLeftOut) {
      ++m_leftOutMore;
      return;
    }
    Removals ignored = {};
    m_leftOut.emplace_back(m_mask.Text(SafeName(name), &ignored), reason);
    m_leftOut.back().first.pop_back();  // its line feed
  }

  static Json::Value PartJson(const BundlePart& part) {
    Json::Value value(Json::objectValue);
    value["name"] = part.name;
    value["bytes"] = static_cast<Json::UInt64>(part.size);
    value["sha256"] = part.sha256;
    value["modified"] = TimeText(part.writtenAt);
    value["lines"] = static_cast<Json::UInt64>(part.lines);
    value["olderLinesLeftOut"] = static_cast<Json::UInt64>(part.linesLeftOut);
    value["removed"] = RemovalsJson(part.removals);
    return value;
  }

  std::uint64_t Room() const {
    const std::uint64_t taken = m_parts.Bytes() + kManifestBytes;
    return taken < m_arguments.cap ? m_arguments.cap - taken : 0;
  }

  void AddPart(const std::string& name, long long writtenAt, const std::string& text,
               const Removals& removals) {
    if (text.size() > Room()) {
      LeaveOut(name, "it does not fit in --max-size");
      return;
    }
    m_parts.Begin(name, writtenAt);
    m_parts.Append(text);
    m_parts.End().removals = removals;
  }

  void AddDocument(const std::string& name, const Json::Value& value) {
    Removals removals = {};
    const std::string text = JsonText(m_mask.Document(value, &removals));
    AddPart(name, std::time(nullptr), text, removals);
  }

  void AddWordsOf(const Json::Value& value, bool isSecret) {
    if (value.isObject()) {
      for (const std::string& name : value.getMemberNames()) {
        AddWordsOf(value[name], isSecret || BundleMask::IsSecretName(name));
      }
    } else if (value.isArray()) {
      for (const Json::Value& one : value) AddWordsOf(one, isSecret);
    } else if (isSecret && value.isString()) {
      m_mask.AddWord(value.asString());
    }
  }

  // Of what is no JSON nobody knows where its secrets end.
  void ReadSettings(const std::string& name) {
    struct stat facts;
    if (::lstat(PathOf(name).c_str(), &facts) != 0) return;
    const int descriptor = OpenRegular(PathOf(name));
    if (descriptor < 0) {
      LeaveOut(name, "no regular file, or not readable");
      return;
    }
    Settings settings = {name, facts.st_mtime, ReadAll(descriptor), std::nullopt};
    ::close(descriptor);
    if (static_cast<off_t>(settings.text.size()) > kLargestSettings) {
      LeaveOut(name, "larger than 1 MB");
      return;
    }
    if (name == kPlainSettings) {
      AddPlainWords(settings.text);
    } else if (!ParseSettings(&settings)) {
      LeaveOut(name, "no valid JSON, so it cannot be masked safely");
      return;
    }
    m_settings.push_back(std::move(settings));
  }

  bool ParseSettings(Settings* settings) {
    const Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const char* const begin = settings->text.data();
    Json::Value document;
    std::string errors;
    try {
      if (!reader->parse(begin, begin + settings->text.size(), &document, &errors)) return false;
    } catch (const Json::Exception&) {  // nested too deeply
      return false;
    }
    AddWordsOf(document, false);
    settings->document = document;
    return true;
  }

  void AddPlainWords(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      const std::size_t sign = line.find('=');
      if (sign != std::string::npos && BundleMask::IsSecretName(line.substr(0, sign))) {
        m_mask.AddWord(line.substr(sign + 1));
      }
    }
  }

  void AddSaltWords() {
    const int descriptor = OpenRegular(PathOf(kSaltFile));
    if (descriptor < 0) return;
    const std::string line = ReadAll(descriptor);
    ::close(descriptor);
    const std::size_t bar = line.find('|');
    m_mask.AddWord(line.substr(0, bar));
    if (bar != std::string::npos) m_mask.AddWord(line.substr(bar + 1));
  }

  // The doctor needs a client that does not run; the logs do not.
  void Examine() {
    try {
      std::unique_ptr<Examination> examination;
      {
        const DirectoryLock lock(m_arguments.directory);
        examination = std::make_unique<Examination>(m_arguments.directory);
      }
      for (const CacheRow& row : examination->Rows()) m_mask.AddWord(row.value);
      m_rows = examination->Rows().size();
      std::string text;
      Json::Value json;
      ReportOn(m_arguments.directory, *examination, &text, &json);
      Removals removals = {};
      const std::string masked = m_mask.Text(text, &removals);
      AddPart("doctor.txt", std::time(nullptr), masked, removals);
      AddDocument("doctor.json", json);
    } catch (const DirectoryInUse&) {
      LeaveOut("doctor.txt", "a client is running: no examination, and no search for its values");
    } catch (const std::system_error& error) {
      LeaveOut("doctor.txt", std::string("no examination: ") + error.code().message());
    }
  }

  void AddSettings() {
    for (const Settings& settings : m_settings) {
      Removals removals = {};
      const std::string text = settings.document
                                   ? JsonText(m_mask.Document(*settings.document, &removals))
                                   : MaskedPlain(settings.text, &removals);
      AddPart("config/" + settings.name, settings.writtenAt, text, removals);
    }
  }

  // The whole value of a secret goes, blanks and all.
  std::string MaskedPlain(const std::string& text, Removals* removals) const {
    std::istringstream lines(text);
    std::string masked;
    for (std::string line; std::getline(lines, line);) {
      const std::size_t sign = line.find('=');
      if (sign != std::string::npos && BundleMask::IsSecretName(line.substr(0, sign))) {
        line.replace(sign + 1, std::string::npos, "[removed: password]");
        ++(*removals)[static_cast<std::size_t>(Removal::kPassword)];
      }
      masked += m_mask.Text(line + '\n', removals);
    }
    return masked;
  }

  // Names, sizes and modes; counts of what is not taken.
  Json::Value Files() const {
    Json::Value value(Json::objectValue);
    value["files"] = Json::Value(Json::arrayValue);
    std::uint64_t spoolFiles = 0;
    std::uint64_t spoolBytes = 0;
    std::size_t count = 0;
    std::error_code error;
    const auto skip = fs::directory_options::skip_permission_denied;
    for (fs::recursive_directory_iterator entry(m_arguments.directory, skip, error), end;
         !error && entry != end; entry.increment(error)) {
      struct stat facts;
      if (::lstat(entry->path().c_str(), &facts) != 0) continue;
      if (entry->path().extension() == ".spool") {
        ++spoolFiles;
        spoolBytes += static_cast<std::uint64_t>(facts.st_size);
      }
      if (++count > kMostFiles) continue;
      char mode[8] = "";
      (void)std::snprintf(mode, sizeof(mode), "%04o", facts.st_mode & kModeBits);
      Json::Value one(Json::objectValue);
      one["name"] = SafeName(entry->path().lexically_relative(m_arguments.directory).string());
      one["type"] = TypeOf(facts.st_mode);
      one["bytes"] = static_cast<Json::Int64>(facts.st_size);
      one["mode"] = mode;
      one["modified"] = TimeText(facts.st_mtime);
      value["files"].append(one);
    }
    value["filesFound"] = static_cast<Json::UInt64>(count);
    value["spoolFiles"] = static_cast<Json::UInt64>(spoolFiles);
    value["spoolBytes"] = static_cast<Json::UInt64>(spoolBytes);
    value["cacheEntries"] =
        m_rows ? Json::Value(static_cast<Json::UInt64>(*m_rows)) : Json::Value();
    return value;
  }

  // A link to a folder of logs is not followed, save one that the user has named.
  void AddLogs() {
    AddLogsIn(m_arguments.directory, "", true);
    if (!m_arguments.logs.empty()) {
      AddLogsIn(m_arguments.logs, "", false);
    } else if (fs::is_directory(fs::symlink_status(PathOf(kLogFolder)))) {
      AddLogsIn(PathOf(kLogFolder), std::string(kLogFolder) + "/", false);
    }
    m_progress->SetTotal(2 * m_logs.Bytes());
    const BundleLogs::Step step = [this](std::uint64_t bytes) {
      Check();
      m_progress->Advance(bytes);
    };
    m_logs.Measure(step);
    m_logs.KeepWithin(Room());
    for (const BundleLogs::Log& log : m_logs.Logs()) {
      m_parts.Begin(log.name, log.writtenAt);
      Removals removals = {};
      m_logs.Write(
          log, &removals, [this](const std::string& line) { m_parts.Append(line); }, step);
      BundlePart& part = m_parts.End();
      part.removals = removals;
      part.linesLeftOut = BundleLogs::LinesLeftOut(log);
    }
  }

  void AddLogsIn(const std::string& directory, const std::string& folder, bool isData) {
    std::set<std::string> names;  // in order, for the same archive of the same directory
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
      names.insert(entry->path().filename().string());
    }
    if (error) LeaveOut(folder.empty() ? "." : folder, "not readable: " + error.message());
    for (const std::string& name : names) {
      if (isData && IsHandled(name)) continue;
      const int descriptor = EndsIn(name, kLogEnd) ? OpenRegular(directory + "/" + name) : -1;
      if (descriptor >= 0) {
        m_logs.Add(LogName(name), descriptor);
      } else {
        LeaveOut(folder + name, ReasonOf(directory + "/" + name));
      }
    }
  }

  static const char* ReasonOf(const std::string& path) {
    struct stat facts;
    if (::lstat(path.c_str(), &facts) != 0) return "it is gone";
    if (S_ISLNK(facts.st_mode)) return "a link, which is not followed";
    if (S_ISDIR(facts.st_mode)) return "a folder";
    if (!S_ISREG(facts.st_mode)) return "no regular file";
    if (!EndsIn(path, kLogEnd)) return EndsIn(path, ".jsonl") ? "events" : "no log of a module";
    return "not readable";
  }

  // In the data directory: settings and the folder of logs, and what is never taken.
  bool IsHandled(const std::string& name) {
    for (const NeverTaken& never : kNeverTaken) {
      if (name != never.name) continue;
      LeaveOut(name, never.reason);
      return true;
    }
    const bool isLogFolder = name == kLogFolder && m_arguments.logs.empty() &&
                             fs::is_directory(fs::symlink_status(PathOf(name)));
    return isLogFolder || name == kPlainSettings ||
           std::find(std::begin(kJsonSettings), std::end(kJsonSettings), name) !=
               std::end(kJsonSettings);
  }

  // The masked name; of several that are the same then, the later ones with a number.
  std::string LogName(const std::string& name) {
    Removals ignored = {};
    std::string safe = m_mask.Text(SafeName(name), &ignored);
    safe.pop_back();  // its line feed
    std::string unique = "logs/" + safe;
    for (int i = 2; !m_logNames.insert(unique).second; ++i) {
      unique = "logs/" + std::to_string(i) + "-" + safe;
    }
    return unique;
  }

  const BundleArguments& m_arguments;
  const std::atomic<bool>& m_interrupted;
  Progress* const m_progress;
  BundleMask m_mask;
  BundleLogs m_logs;
  BundleParts m_parts;
  std::vector<Settings> m_settings;
  std::optional<std::size_t> m_rows;  // of the database
  std::set<std::string> m_logNames;
  std::vector<std::pair<std::string, std::string>> m_leftOut;
  std::size_t m_leftOutMore = 0;
};

bool Show(const BundleArguments& arguments, const Bundle& bundle, std::uint64_t written) {
  if (arguments.asJson) {
    Json::Value value = bundle.Manifest();
    value["archive"] = arguments.isListing ? Json::Value() : Json::Value(arguments.archive);
    value["archiveBytes"] =
        arguments.isListing ? Json::Value() : Json::Value(static_cast<Json::UInt64>(written));
    return Print(JsonText(value));
  }
  return Print(bundle.Listing() + "\n" +
               (arguments.isListing ? std::string("nothing was written: this is what would go in\n")
                                    : "wrote " + Quoted(arguments.archive) + ", " +
                                          std::to_string(written) + " bytes\n"));
}

}  // namespace

bool WriteBundle(const std::vector<std::string>& given, const std::atomic<bool>& interrupted) {
  const BundleArguments arguments = ParseBundle(given);
  std::optional<Progress> progress("bundling");
  try {
    Bundle bundle(arguments, interrupted, &*progress);
    bundle.Collect();
    const std::uint64_t written = arguments.isListing ? 0 : bundle.Write();
    progress.reset();
    return Show(arguments, bundle, written);
  } catch (const std::system_error& error) {
    progress.reset();
    Complain("no bundle: " + std::string(error.what()));
  } catch (const Interrupted& error) {
    progress.reset();
    Complain(error.what());
  }
  return false;
}

}  // namespace zelctl
