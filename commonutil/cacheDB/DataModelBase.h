// How a statement is composed, prepared, bound, run and read back, written once: a table
// command derives from one of the templates and supplies its SQL text, its binding and its
// reading. Commands live on the stack for one operation and belong to one thread.
//
// No exception leaves an Execute. It ends quietly on an empty SQL text, a missing storage or
// a statement that cannot be prepared; the counters then tell that nothing was done.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "cacheDB/SQLiteWrapper.h"
#include "util/ScopeGuard.h"
#include "util/Statistics.h"

namespace commonutil {

class DataModelBase {
 public:
  // `variant` selects among the forms that a command has.
  DataModelBase(const std::string& storageName, int variant);
  virtual ~DataModelBase();
  DataModelBase(const DataModelBase&) = delete;
  DataModelBase& operator=(const DataModelBase&) = delete;

  virtual void SetType(int variant);
  virtual void ComposeSQL(std::string& sql) = 0;

 protected:
  // Runs the body of an Execute. An SQLiteException is dropped without a word: what SQLite
  // refused has been logged already.
  template <class Body>
  void Filtered(Body&& body) const {
    Statistics::Count(Counter::kDatabaseOperations);
    ScopeGuard failed([] { Statistics::Count(Counter::kDatabaseFailures); });
    try {
      std::forward<Body>(body)();
      failed.Dismiss();
    } catch (const SQLiteException&) {  // see above
    } catch (const std::exception& e) {
      LogStdException(e);
    } catch (...) {
      LogUnknownException();
    }
  }
  static void LogStdException(const std::exception& e);
  static void LogUnknownException();

  // Null for an empty text, without a storage and without memory.
  std::unique_ptr<IDataManipulation> Prepare(const std::string& sql) const;

  IDataStorage* storage;  // null when no database of that name is registered
  std::int32_t type;

 private:
  // Keeps the database alive while another thread takes it out of the registry.
  std::shared_ptr<IDataStorage> m_storageOwner;
};

// Statements about the schema.
class DDLBase : public DataModelBase {
 public:
  using DataModelBase::DataModelBase;

  void Execute();
};

// Statements that change rows, one run for each record of a list.
template <class T, class List>
class DMLBase : public DataModelBase {
 public:
  using DataModelBase::ComposeSQL;
  using DataModelBase::DataModelBase;

  // The text is composed from the first record and used for all. Two or more records run in
  // one exclusive transaction, which an exception on the way rolls back.
  virtual void Execute(const List& items) {
    affected = 0;
    Filtered([&] {
      std::string sql;
      items.empty() ? ComposeSQL(sql) : ComposeSQL(items.front(), sql);
      const std::unique_ptr<IDataManipulation> statement = Prepare(sql);
      if (statement == nullptr) return;
      Transanction transaction(storage, items.size() >= kBatchSize);
      for (const T& item : items) {
        Bind(statement.get(), item);
        affected += statement->Exec(true);
      }
      transaction.Commit();
      if (transaction.IsLost()) affected = 0;
    });
  }
  virtual void ComposeSQL(const T& /*item*/, std::string& sql) { ComposeSQL(sql); }
  virtual void Bind(IDataManipulation* statement, const T& item) = 0;

  void SingleExecute(int variant, const T& item) {
    SetType(variant);
    Execute(List{item});
  }

  // Rows changed by the last Execute, up to its failure if there was one.
  std::int32_t Affected() const { return affected; }

 protected:
  std::int32_t affected = 0;

 private:
  static constexpr std::size_t kBatchSize = 2;  // one record has SQLite's own transaction
};

template <class T, class List>
class DMLInsertBase : public DMLBase<T, List> {
 public:
  using DMLBase<T, List>::DMLBase;
  using DMLBase<T, List>::Execute;

  virtual void Execute(const T& item) {
    this->affected = 0;
    this->Filtered([&] {
      std::string sql;
      this->ComposeSQL(sql);
      const std::unique_ptr<IDataManipulation> statement = this->Prepare(sql);
      if (statement == nullptr) return;
      this->Bind(statement.get(), item);
      if (statement->Exec(true) != 1) return;
      this->affected += 1;
      lastRowId = this->storage->GetLastInsertRowId();
    });
  }

  // The row id of the last record that Execute inserted by itself, not in a list.
  std::int64_t LastRowId() const { return lastRowId; }

 protected:
  std::int64_t lastRowId = 0;
};

// Queries: a condition in, a list of records out.
template <class Cond, class T, class CondList, class List>
class DQLBase : public DataModelBase {
 public:
  using DataModelBase::ComposeSQL;
  using DataModelBase::DataModelBase;

  // Appends to `out`.
  virtual void Execute(const Cond& condition, List& out) {
    count = 0;
    Filtered([&] {
      std::string sql;
      ComposeSQL(condition, sql);
      const std::unique_ptr<IDataManipulation> statement = Prepare(sql);
      if (statement == nullptr) return;
      Bind(statement.get(), condition);
      while (statement->NextRow()) {
        T row{};
        Extract(statement.get(), row);
        count += 1;
        out.push_back(std::move(row));
      }
    });
  }
  virtual void ComposeSQL(const Cond& /*condition*/, std::string& sql) { ComposeSQL(sql); }
  virtual void Bind(IDataManipulation* statement, const Cond& condition) = 0;
  virtual void Extract(IDataManipulation* statement, T& row) = 0;

  // The first row. False, with `out` untouched, when there is none.
  bool SingleExecute(int variant, const Cond& condition, T& out) {
    SetType(variant);
    List rows;
    Execute(condition, rows);
    if (rows.empty()) return false;
    out = std::move(rows.front());
    return true;
  }

  // Rows read by the last Execute.
  std::int32_t Count() const { return count; }

 protected:
  std::int32_t count = 0;
};

// Creates what the cache database consists of.
class DataModel {
 public:
  static DataModel& GetInst();
  DataModel(const DataModel&) = delete;
  DataModel& operator=(const DataModel&) = delete;

  void Init() const;
  void Uninit() const;
  void CreateSDKCacheTables() const;
  void CreateSDKCacheTableIndexs() const;  // spelling is part of the interface

 private:
  DataModel() = default;
};

}  // namespace commonutil
