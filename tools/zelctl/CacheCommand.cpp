#include "CacheCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>

#include "Arguments.h"
#include "CacheFile.h"
#include "CommonUtil.h"
#include "DataFiles.h"
#include "DatabaseKey.h"
#include "DirectoryLock.h"
#include "Options.h"
#include "Progress.h"
#include "Report.h"
#include "StagedDirectory.h"
#include "Text.h"
#include "publicInc/CommonUtilPrivateManager.h"
#include "publicInc/ResultCode.h"
#include "track/track_ref.h"

namespace zelctl {
namespace {

using commonutil::CommonUtil;
using commonutil::CommonUtilPrivateManager;
using commonutil::ZelConfigCache;

constexpr char kJsonOption[] = "--json";
constexpr char kValuesOption[] = "--values";
constexpr char kStandardInput[] = "-";
constexpr int kLogErrors = 0;
constexpr int kWithoutTracking = 1;
constexpr mode_t kPrivateMode = 0600;

// The command line cannot be carried out; the text says why.
class CacheError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs a subcommand's body; what it throws becomes one line and false.
template <class Body>
bool Guarded(Body&& body) {
  try {
    return body();
  } catch (const CacheError& error) {
    Complain(error.what());
  } catch (const DirectoryInUse& error) {
    Complain(error.what());
  }
  return false;
}

Arguments Parse(const std::vector<std::string>& given, const std::set<std::string>& options,
                std::size_t words, const char* usage) {
  Arguments arguments(given, options);
  if (arguments.Words().size() != words) throw UsageError(usage);
  CheckClientDirectory(arguments.Words()[0]);
  return arguments;
}

const std::string& KeyOf(const Arguments& arguments) {
  const std::string& key = arguments.Words()[1];
  if (key.empty()) throw UsageError("KEY is empty; the cache has no entry without a name");
  return key;
}

[[noreturn]] void Refuse(const std::string& directory, const std::string& reason) {
  throw CacheError("the cache of " + Quoted(directory) + " cannot be used: " + reason +
                   "; see zelctl doctor");
}

const char* ReasonOf(KeyState state) {
  switch (state) {
    case KeyState::kReady:
      return "";
    case KeyState::kStoreMissing:
      return "its key store is missing";
    case KeyState::kStoreDamaged:
      return "its key store is damaged";
    case KeyState::kStoreFailed:
      return "its key store does not open";
    case KeyState::kSaltMissing:
      return "its salt line is missing";
    case KeyState::kSaltMalformed:
      return "its salt line is malformed";
    case KeyState::kSaltUnreadable:
      return "its salt line does not decrypt";
  }
  return "";
}

const char* ReasonOf(CacheFile::State state) {
  switch (state) {
    case CacheFile::State::kOpen:
      return "";
    case CacheFile::State::kMissing:
      return "its database is missing";
    case CacheFile::State::kEmpty:
      return "its database is empty";
    case CacheFile::State::kUnencrypted:
      return "its database is not encrypted";
    case CacheFile::State::kUnreadable:
      return "its database does not open with its key";
    case CacheFile::State::kFailed:
      return "its database is no file that could be opened";
  }
  return "";
}

struct FileFacts {
  long long bytes = 0;
  long long writtenAt = 0;  // seconds since the epoch
};

// What was written last may still be in the log beside the database.
FileFacts FactsOf(const std::string& directory) {
  struct stat found;
  if (::stat((directory + "/" + kDatabaseFile).c_str(), &found) != 0) return {};
  FileFacts facts = {found.st_size, found.st_mtime};
  if (::stat((directory + "/" + kWriteAheadFile).c_str(), &found) == 0) {
    facts.writtenAt = std::max<long long>(facts.writtenAt, found.st_mtime);
  }
  return facts;
}

// A copy of the directory's cache, made while no client is in it, whose database opens.
class CacheCopy {
 public:
  explicit CacheCopy(const std::string& directory)
      : m_facts(FactsOf(directory)), m_staged(directory) {
    FindDatabaseKey(m_staged, &m_key);
    if (m_key.state != KeyState::kReady) Refuse(directory, ReasonOf(m_key.state));
    CacheFile file(m_staged.Of(kDatabaseFile), m_key.key);
    if (file.GetState() != CacheFile::State::kOpen) Refuse(directory, ReasonOf(file.GetState()));
    if (file.IsCutOff()) Refuse(directory, "its database is cut off");
    if (!file.HasTable() || !file.HasColumns()) Refuse(directory, "its table is missing");
  }

  StagedDirectory& Staged() { return m_staged; }
  std::unique_ptr<CacheFile> Open() const {
    return std::make_unique<CacheFile>(m_staged.Of(kDatabaseFile), m_key.key);
  }
  // Takes the log over into the real database and removes it. The library, which never closes a
  // database, must not use it any more.
  void Settle() const { (void)Open(); }
  const FileFacts& Facts() const { return m_facts; }

 private:
  const FileFacts m_facts;
  StagedDirectory m_staged;
  DatabaseKey m_key;
};

// Once per process. Without tracking, which would count this as a run of the client.
void InitLibrary(const StagedDirectory& staged) {
  track_ref_set_init_result(kWithoutTracking);
  commonutil::tagZelUtilInitParam param = {};
  param.logLevel = kLogErrors;
  if (staged.Path().size() >= sizeof(param.dbPath)) {
    throw CacheError(
        "the path of the temporary directory is too long; set TMPDIR to a shorter one");
  }
  staged.Path().copy(param.dbPath, sizeof(param.dbPath) - 1);
  staged.Path().copy(param.logPath, sizeof(param.logPath) - 1);
  const int result = CommonUtil::getInst().InitCommonUtil(param, nullptr);
  if (result != commonutil::kOk) {
    throw CacheError("the library does not initialise, result " + std::to_string(result) +
                     "; see zelctl explain");
  }
}

// What the database itself has under `key`; false without an entry.
bool QueryDatabase(const std::string& key, ZelConfigCache* entry) {
  int count = 1;
  const int result = UTCallBackQueryConfigCache(key.c_str(), entry, &count);
  if (result == commonutil::kOk) return true;
  if (result == commonutil::kQueryNoEntry) return false;
  throw CacheError("the query failed with result " + std::to_string(result) +
                   "; see zelctl explain");
}

Json::Value EntryJson(const CacheRow& row, bool withValue) {
  Json::Value entry(Json::objectValue);
  entry["id"] = static_cast<Json::Int64>(row.id);
  entry["key"] = row.key;
  entry["bytes"] = static_cast<Json::UInt64>(row.value.size());
  if (withValue) entry["value"] = row.value;
  return entry;
}

std::string EntriesTable(const std::vector<CacheRow>& rows, bool withValues) {
  std::vector<Table::Column> columns = {
      {"ID", Table::Align::kRight}, {"BYTES", Table::Align::kRight}, {"KEY"}};
  if (withValues) columns.push_back({"VALUE"});
  Table table(columns);
  for (const CacheRow& row : rows) {
    std::vector<std::string> cells = {std::to_string(row.id), std::to_string(row.value.size()),
                                      row.key};
    if (withValues) cells.push_back(row.value);
    table.Add(cells);
  }
  return table.Text();
}

Json::Value CacheJson(const FileFacts& facts, const std::vector<CacheRow>& rows, bool withValues) {
  Json::Value value(Json::objectValue);
  value["databaseBytes"] = static_cast<Json::Int64>(facts.bytes);
  value["lastWritten"] = TimeText(facts.writtenAt);
  value["entries"] = Json::Value(Json::arrayValue);
  for (const CacheRow& row : rows) value["entries"].append(EntryJson(row, withValues));
  return value;
}

std::string Summary(const FileFacts& facts, std::size_t rows) {
  return std::to_string(rows) + (rows == 1 ? " entry, " : " entries, ") + kDatabaseFile + " has " +
         std::to_string(facts.bytes) + " bytes and was last written " + TimeText(facts.writtenAt) +
         '\n';
}

std::vector<CacheRow> AllRows(const CacheCopy& copy, const std::string& directory) {
  bool isComplete = false;
  std::vector<CacheRow> rows = copy.Open()->Rows(&isComplete);
  if (!isComplete) Refuse(directory, "its database has a damaged page");
  return rows;
}

bool WritePrivately(const std::string& path, const std::string& text) {
  const int file =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateMode);
  if (file < 0) return false;
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(file, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) break;
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  const int error = errno;
  const bool closed = ::close(file) == 0;
  if (done == text.size() && closed) return true;
  if (done < text.size()) errno = error;
  return false;
}

std::string ValueOf(const std::string& argument) {
  if (argument != kStandardInput) return argument;
  std::string value((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
  if (value.find('\0') != std::string::npos) {
    throw UsageError("VALUE has a NUL byte, at which the cache would cut it; encode it first");
  }
  return value;
}

std::string VerifyText(const CacheCheck& check, const FileFacts& facts, std::size_t rows) {
  if (check.IsSound()) return "sound: every page was read and checked\n" + Summary(facts, rows);
  std::string text = "damaged; see zelctl doctor\n";
  for (const std::string& remark : check.remarks) text += "  " + remark + '\n';
  return text;
}

Json::Value VerifyJson(const CacheCheck& check, std::size_t rows) {
  Json::Value value(Json::objectValue);
  value["sound"] = check.IsSound();
  value["entries"] = static_cast<Json::UInt64>(rows);
  value["damagedPages"] = Json::Value(Json::arrayValue);
  for (const unsigned int page : check.damagedPages) value["damagedPages"].append(page);
  value["remarks"] = Json::Value(Json::arrayValue);
  for (const std::string& remark : check.remarks) value["remarks"].append(remark);
  return value;
}

// The copy is made under the lock, which ends with it: a client may start while the copy is read.
std::unique_ptr<CacheCopy> CopyOf(const std::string& directory) {
  const DirectoryLock lock(directory);
  return std::make_unique<CacheCopy>(directory);
}

}  // namespace

bool ListCache(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments arguments =
      Parse(given, {kJsonOption, kValuesOption}, 1, "cache list needs one DIR");
  return Guarded([&] {
    const std::string& directory = arguments.Words()[0];
    const auto copy = CopyOf(directory);
    const std::vector<CacheRow> rows = AllRows(*copy, directory);
    const bool withValues = arguments.Has(kValuesOption);
    if (arguments.Has(kJsonOption))
      return Print(JsonText(CacheJson(copy->Facts(), rows, withValues)));
    return Print(EntriesTable(rows, withValues) + Summary(copy->Facts(), rows.size()));
  });
}

bool GetCache(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments arguments =
      Parse(given, {kJsonOption, kValuesOption}, 2, "cache get needs DIR and KEY");
  const std::string& key = KeyOf(arguments);
  return Guarded([&] {
    const auto copy = CopyOf(arguments.Words()[0]);
    InitLibrary(copy->Staged());
    ZelConfigCache entry;
    if (!QueryDatabase(key, &entry)) throw CacheError("no entry " + Quoted(key));
    const CacheRow row = {entry.autoId, entry.key, entry.value};
    const bool withValue = arguments.Has(kValuesOption);
    return Print(arguments.Has(kJsonOption) ? JsonText(EntryJson(row, withValue))
                                            : EntriesTable({row}, withValue));
  });
}

bool PutCache(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments arguments = Parse(given, {}, 3, "cache put needs DIR, KEY and VALUE");
  const std::string& key = KeyOf(arguments);
  const ZelConfigCache entry = {0, key, ValueOf(arguments.Words()[2])};
  return Guarded([&] {
    const DirectoryLock lock(arguments.Words()[0]);
    CacheCopy copy(arguments.Words()[0]);
    copy.Staged().UseRealDatabase();
    InitLibrary(copy.Staged());
    (void)CommonUtilPrivateManager::getInst().BatchAddConfigCache(&entry, 1);  // tells of memory
    ZelConfigCache stored;
    const bool isStored = QueryDatabase(key, &stored) && stored.value == entry.value;
    copy.Settle();
    if (isStored) {
      return Print("stored " + Counted(entry.value.size(), "byte") + "\n");
    }
    throw CacheError("the database did not take the entry; see zelctl doctor");
  });
}

bool DeleteCache(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments arguments = Parse(given, {}, 2, "cache delete needs DIR and KEY");
  const std::string& key = KeyOf(arguments);
  return Guarded([&] {
    const DirectoryLock lock(arguments.Words()[0]);
    CacheCopy copy(arguments.Words()[0]);
    copy.Staged().UseRealDatabase();
    InitLibrary(copy.Staged());
    ZelConfigCache entry;
    if (!QueryDatabase(key, &entry)) throw CacheError("no entry " + Quoted(key));
    const int result = CommonUtilPrivateManager::getInst().DeleteConfigCacheByKey(key);
    const bool isDeleted = result == commonutil::kOk && !QueryDatabase(key, &entry);
    copy.Settle();
    if (isDeleted) return Print("deleted\n");
    throw CacheError("the database did not remove the entry; see zelctl doctor");
  });
}

bool ExportCache(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments arguments = Parse(given, {kValuesOption}, 2, "cache export needs DIR and FILE");
  const std::string& file = arguments.Words()[1];
  return Guarded([&] {
    const std::string& directory = arguments.Words()[0];
    std::optional<Progress> progress("exporting");
    const auto copy = CopyOf(directory);
    const std::vector<CacheRow> rows = AllRows(*copy, directory);
    if (!WritePrivately(file,
                        JsonText(CacheJson(copy->Facts(), rows, arguments.Has(kValuesOption))))) {
      throw CacheError("cannot write " + Quoted(file) + ": " + std::strerror(errno) +
                       "; name a new file");
    }
    return Print("wrote " + Summary(copy->Facts(), rows.size()));
  });
}

bool VerifyCache(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments arguments = Parse(given, {kJsonOption}, 1, "cache verify needs one DIR");
  return Guarded([&] {
    std::optional<Progress> progress("checking the database");
    const auto copy = CopyOf(arguments.Words()[0]);
    const auto file = copy->Open();
    const CacheCheck check = file->Check();
    bool isComplete = false;
    const std::size_t rows = file->Rows(&isComplete).size();
    progress.reset();
    const bool printed = Print(arguments.Has(kJsonOption) ? JsonText(VerifyJson(check, rows))
                                                          : VerifyText(check, copy->Facts(), rows));
    return printed && check.IsSound() && isComplete;
  });
}

}  // namespace zelctl
