#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "sqlite/FMKLVArguments.h"
#include "sqlite/FMKLVError.h"
#include "sqlite/FMKLVResultSet.h"

namespace kelvo {

class FMKLVDatabase;

/// Conveniences of a connection, made of its queries and updates.
class FMKLVDatabaseAdditions {
 public:
  // --- The first column of the first row, as the result set's getters read it; 0, false or nullopt without a row.

  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] int intForQuery(const std::string& sql, const Values&... arguments) {
    const auto row = firstRow(sql, FMKLVArguments(arguments...));
    return row ? row->intForColumnIndex(0) : 0;
  }
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] long longForQuery(const std::string& sql, const Values&... arguments) {
    const auto row = firstRow(sql, FMKLVArguments(arguments...));
    return row ? row->longForColumnIndex(0) : 0;
  }
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] bool boolForQuery(const std::string& sql, const Values&... arguments) {
    const auto row = firstRow(sql, FMKLVArguments(arguments...));
    return row && row->boolForColumnIndex(0);
  }
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] double doubleForQuery(const std::string& sql, const Values&... arguments) {
    const auto row = firstRow(sql, FMKLVArguments(arguments...));
    return row ? row->doubleForColumnIndex(0) : 0;
  }
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] std::optional<std::string> stringForQuery(const std::string& sql, const Values&... arguments) {
    const auto row = firstRow(sql, FMKLVArguments(arguments...));
    return row ? row->stringForColumnIndex(0) : std::nullopt;
  }
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] std::optional<Data> dataForQuery(const std::string& sql, const Values&... arguments) {
    const auto row = firstRow(sql, FMKLVArguments(arguments...));
    return row ? row->dataForColumnIndex(0) : std::nullopt;
  }
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] std::optional<Date> dateForQuery(const std::string& sql, const Values&... arguments) {
    const auto row = firstRow(sql, FMKLVArguments(arguments...));
    return row ? row->dateForColumnIndex(0) : std::nullopt;
  }

  // --- The schema. Names are compared without regard to case.

  [[nodiscard]] bool tableExists(const std::string& tableName);
  [[nodiscard]] bool columnExists(const std::string& columnName, const std::string& tableName);
  /// A row of type, name, tbl_name, rootpage and sql for every table, index, view and trigger.
  [[nodiscard]] std::unique_ptr<FMKLVResultSet> getSchema();
  /// A row of cid, name, type, notnull, dflt_value and pk for every column.
  [[nodiscard]] std::unique_ptr<FMKLVResultSet> getTableSchema(const std::string& tableName);

  // --- Two numbers that the file keeps for its application; 0 in a new one.

  [[nodiscard]] std::uint32_t applicationID();
  [[nodiscard]] bool setApplicationID(std::uint32_t applicationID);
  [[nodiscard]] std::uint32_t userVersion();
  [[nodiscard]] bool setUserVersion(std::uint32_t version);

  /// Whether SQLite can prepare `sql`, which it does not run. When it cannot, `error` tells why, and no line does.
  [[nodiscard]] bool validateSQL(const std::string& sql, FMKLVError* error = nullptr);

 protected:
  FMKLVDatabaseAdditions() = default;
  FMKLVDatabaseAdditions(const FMKLVDatabaseAdditions&) = delete;
  FMKLVDatabaseAdditions& operator=(const FMKLVDatabaseAdditions&) = delete;
  ~FMKLVDatabaseAdditions() = default;

 private:
  [[nodiscard]] FMKLVDatabase& database() noexcept;
  /// nullptr when there is none.
  [[nodiscard]] std::unique_ptr<FMKLVResultSet> firstRow(const std::string& sql, const FMKLVArguments& arguments);
};

}  // namespace kelvo
