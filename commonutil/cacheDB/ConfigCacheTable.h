// The one table of the cache database, a key/value store with unique keys, and the commands
// that create, fill, empty and read it. Keys match by exact equality.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "cacheDB/DataModelBase.h"

namespace commonutil {

struct ConfigCache {
  std::int32_t autoId = 0;  // row id; 0: not set
  std::string key;
  std::string value;
};

using ConfigCacheList = std::list<ConfigCache>;

// The forms of the remove and query commands. Not the key types of the callers above, where
// 1 also means a key but 2 means all.
enum ConfigCacheSelection : int {
  kSelectAll = 0,
  kSelectByKey = 1,
};

class CreateConfigCacheTabCommand : public DDLBase {
 public:
  CreateConfigCacheTabCommand();
  void ComposeSQL(std::string& sql) override;
};

class CreateConfigCacheTabUniqueIndexCommand : public DDLBase {
 public:
  CreateConfigCacheTabUniqueIndexCommand();
  void ComposeSQL(std::string& sql) override;
};

// Inserts records; one whose key or row id is known replaces that row.
class AddConfigCacheCommand : public DMLInsertBase<ConfigCache, ConfigCacheList> {
 public:
  using DMLInsertBase::ComposeSQL;

  AddConfigCacheCommand();
  void ComposeSQL(std::string& sql) override;
  void Bind(IDataManipulation* statement, const ConfigCache& item) override;

  // Return the number of rows written.
  int SingleAdd(const ConfigCache& item);
  int BatchAdd(const ConfigCacheList& items);
};

class RemoveConfigCacheCommand : public DMLBase<ConfigCache, ConfigCacheList> {
 public:
  RemoveConfigCacheCommand();
  void ComposeSQL(std::string& sql) override;  // nothing: without a record nothing is removed
  void ComposeSQL(const ConfigCache& item, std::string& sql) override;
  void Bind(IDataManipulation* statement, const ConfigCache& item) override;

  // Return the number of rows removed.
  int RemoveByAll();
  int RemoveByKey(const std::string& key);
};

// Spelling is part of the interface.
class QueryConfigCacheCommond
    : public DQLBase<ConfigCache, ConfigCache, ConfigCacheList, ConfigCacheList> {
 public:
  using DQLBase::ComposeSQL;

  QueryConfigCacheCommond();
  void ComposeSQL(std::string& sql) override;
  void Bind(IDataManipulation* statement, const ConfigCache& condition) override;
  void Extract(IDataManipulation* statement, ConfigCache& row) override;
  // Reads a record from `firstColumn` on; returns the number of columns read.
  int ExtractConfigCacheData(IDataManipulation* statement, ConfigCache& row, int firstColumn);

  // Appends every row, in no stated order, and returns their number.
  int QueryAll(ConfigCacheList& out);
  // False, with `out` untouched, for an unknown key.
  bool QueryByKey(const std::string& key, ConfigCache& out);
};

}  // namespace commonutil
