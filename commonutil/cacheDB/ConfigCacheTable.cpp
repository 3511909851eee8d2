#include "cacheDB/ConfigCacheTable.h"

#include "cacheDB/DataStorage.h"
#include "util/Log.h"

namespace commonutil {
namespace {

constexpr char kLogFile[] = "commonutil/cacheDB/ConfigCacheTable";

constexpr char kCreateTable[] =
    "CREATE TABLE IF NOT EXISTS ConfigCacheTab( AUTOID  INTEGER PRIMARY KEY AUTOINCREMENT, KEY    "
    "VARCHAR(256) NOT NULL, VALUE  VARCHAR(512));";
constexpr char kCreateIndex[] =
    "CREATE UNIQUE INDEX IF NOT EXISTS CONFIGCACHE_UNIQUE_INDEX ON ConfigCacheTab(KEY);";
constexpr char kInsert[] =
    "INSERT OR REPLACE INTO ConfigCacheTab( AUTOID, KEY, VALUE) VALUES ( ?, ?, ? );";
// The forms of a command that may have a condition.
struct Forms {
  const char* all;
  const char* byKey;
};
constexpr Forms kDelete = {"DELETE FROM ConfigCacheTab;",
                           "DELETE FROM ConfigCacheTab WHERE KEY = ?;"};
constexpr Forms kSelect = {"SELECT AUTOID, KEY, VALUE FROM ConfigCacheTab;",
                           "SELECT AUTOID, KEY, VALUE FROM ConfigCacheTab WHERE KEY = ?;"};

constexpr int kOnlyForm = 0;  // of a command that has one

// Parameters of the insert statement.
constexpr int kInsertAutoId = 1;
constexpr int kInsertKey = 2;
constexpr int kInsertValue = 3;
// The parameter of the condition.
constexpr int kConditionKey = 1;
// Columns of a record within a row.
constexpr int kColumnAutoId = 0;
constexpr int kColumnKey = 1;
constexpr int kColumnValue = 2;
constexpr int kColumns = 3;

// Empty, so that nothing runs, for an unknown type.
std::string Selecting(const Forms& forms, int type) {
  switch (type) {
    case kSelectAll:
      return forms.all;
    case kSelectByKey:
      return forms.byKey;
    default:
      ZEL_LOG(kWarning) << "unknown type : " << type;
      return {};
  }
}

// The results of Bind are in the log; a statement bound in part fails or matches nothing.
void BindCondition(IDataManipulation* statement, int type, const ConfigCache& condition) {
  switch (type) {
    case kSelectAll:
      return;
    case kSelectByKey:
      (void)statement->Bind(kConditionKey, condition.key);
      return;
    default:
      ZEL_LOG(kWarning) << "unknown type : " << type;
  }
}

// Bindings outlive a reset, so a row id of the record before must be taken back.
void BindAutoId(IDataManipulation* statement, std::int32_t autoId) {
  if (autoId >= 1) {
    (void)statement->Bind(kInsertAutoId, autoId);
    return;
  }
  if (auto* const sqlite = dynamic_cast<SQLiteStmt*>(statement)) {
    (void)sqlite->BindNull(kInsertAutoId);
  }
}

ConfigCache WithKey(const std::string& key) {
  ConfigCache record;
  record.key = key;
  return record;
}

}  // namespace

CreateConfigCacheTabCommand::CreateConfigCacheTabCommand() : DDLBase(kCacheDbName, kOnlyForm) {}

void CreateConfigCacheTabCommand::ComposeSQL(std::string& sql) { sql = kCreateTable; }

CreateConfigCacheTabUniqueIndexCommand::CreateConfigCacheTabUniqueIndexCommand()
    : DDLBase(kCacheDbName, kOnlyForm) {}

void CreateConfigCacheTabUniqueIndexCommand::ComposeSQL(std::string& sql) { sql = kCreateIndex; }

AddConfigCacheCommand::AddConfigCacheCommand() : DMLInsertBase(kCacheDbName, kOnlyForm) {
  lastRowId = -1;
}

void AddConfigCacheCommand::ComposeSQL(std::string& sql) { sql = kInsert; }

void AddConfigCacheCommand::Bind(IDataManipulation* statement, const ConfigCache& item) {
  BindAutoId(statement, item.autoId);
  (void)statement->Bind(kInsertKey, item.key);  // failures are in the log
  (void)statement->Bind(kInsertValue, item.value);
}

int AddConfigCacheCommand::SingleAdd(const ConfigCache& item) {
  SingleExecute(kOnlyForm, item);
  return affected;
}

int AddConfigCacheCommand::BatchAdd(const ConfigCacheList& items) {
  SetType(kOnlyForm);
  Execute(items);
  return affected;
}

RemoveConfigCacheCommand::RemoveConfigCacheCommand() : DMLBase(kCacheDbName, kSelectAll) {}

void RemoveConfigCacheCommand::ComposeSQL(std::string& /*sql*/) {}

void RemoveConfigCacheCommand::ComposeSQL(const ConfigCache& /*item*/, std::string& sql) {
  sql = Selecting(kDelete, type);
}

void RemoveConfigCacheCommand::Bind(IDataManipulation* statement, const ConfigCache& item) {
  BindCondition(statement, type, item);
}

int RemoveConfigCacheCommand::RemoveByAll() {
  SingleExecute(kSelectAll, ConfigCache());
  return affected;
}

int RemoveConfigCacheCommand::RemoveByKey(const std::string& key) {
  SingleExecute(kSelectByKey, WithKey(key));
  return affected;
}

QueryConfigCacheCommond::QueryConfigCacheCommond() : DQLBase(kCacheDbName, kSelectAll) {}

void QueryConfigCacheCommond::ComposeSQL(std::string& sql) { sql = Selecting(kSelect, type); }

void QueryConfigCacheCommond::Bind(IDataManipulation* statement, const ConfigCache& condition) {
  BindCondition(statement, type, condition);
}

void QueryConfigCacheCommond::Extract(IDataManipulation* statement, ConfigCache& row) {
  (void)ExtractConfigCacheData(statement, row, kColumnAutoId);  // nothing follows the record
}

int QueryConfigCacheCommond::ExtractConfigCacheData(IDataManipulation* statement, ConfigCache& row,
                                                    int firstColumn) {
  statement->GetValue(firstColumn + kColumnAutoId, row.autoId);
  statement->GetValue(firstColumn + kColumnKey, row.key);
  statement->GetValue(firstColumn + kColumnValue, row.value);
  return kColumns;
}

int QueryConfigCacheCommond::QueryAll(ConfigCacheList& out) {
  SetType(kSelectAll);
  Execute(ConfigCache(), out);
  return count;
}

bool QueryConfigCacheCommond::QueryByKey(const std::string& key, ConfigCache& out) {
  return SingleExecute(kSelectByKey, WithKey(key), out);
}

}  // namespace commonutil
