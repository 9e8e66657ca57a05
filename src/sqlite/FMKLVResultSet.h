#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kelvo/Value.h"
#include "sqlite/FMKLVError.h"
#include "sqlite/FMKLVStatement.h"

namespace kelvo {

class FMKLVDatabase;

/// A cursor over the rows of a query, standing before the first one at the start.
///
/// Open until `close`, the end of its rows, the end of its connection or its own. Used where its connection is.
class FMKLVResultSet {
 public:
  /// Marks the statement as in use.
  static std::unique_ptr<FMKLVResultSet> resultSetWithStatement(std::shared_ptr<FMKLVStatement> statement,
                                                                FMKLVDatabase& parentDB);
  FMKLVResultSet(const FMKLVResultSet&) = delete;
  FMKLVResultSet& operator=(const FMKLVResultSet&) = delete;
  ~FMKLVResultSet() { close(); }

  // --- Rows.

  /// Moves to the next row; false, and closed, when there is none or SQLite reports a failure, which is logged.
  [[nodiscard]] bool next() { return nextWithError(nullptr); }
  /// As above; a failure is told in `error`, too, which the end of the rows leaves alone.
  [[nodiscard]] bool nextWithError(FMKLVError* error);
  /// Whether it stands on a row.
  [[nodiscard]] bool hasAnotherRow() const noexcept;
  void close();

  // --- Columns.

  [[nodiscard]] const std::string& query() const noexcept { return query_; }
  [[nodiscard]] int columnCount() const noexcept;
  /// Ignores case; -1, with a warning, when there is none.
  [[nodiscard]] int columnIndexForName(std::string_view name) const;
  [[nodiscard]] std::string columnNameForIndex(int index) const;

  // --- The current row, converted by SQLite's rules. Without a row or such a column: 0, false or nullopt, as for NULL.

  /// Clamped to 32 bits.
  [[nodiscard]] int intForColumnIndex(int index) const;
  [[nodiscard]] long longForColumnIndex(int index) const { return static_cast<long>(longLongIntForColumnIndex(index)); }
  [[nodiscard]] std::int64_t longLongIntForColumnIndex(int index) const;
  [[nodiscard]] std::uint64_t unsignedLongLongIntForColumnIndex(int index) const {
    return static_cast<std::uint64_t>(longLongIntForColumnIndex(index));
  }
  [[nodiscard]] bool boolForColumnIndex(int index) const { return longLongIntForColumnIndex(index) != 0; }
  [[nodiscard]] double doubleForColumnIndex(int index) const;
  [[nodiscard]] std::optional<std::string> stringForColumnIndex(int index) const;
  /// Valid until the next row or `close`; nullptr for NULL.
  [[nodiscard]] const char* UTF8StringForColumnIndex(int index) const;
  /// Reads by the connection's date formatter, or seconds since 1970; nullopt also for what is no date.
  [[nodiscard]] std::optional<Date> dateForColumnIndex(int index) const;
  [[nodiscard]] std::optional<Data> dataForColumnIndex(int index) const;
  /// Valid until the next row or `close`.
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> dataNoCopyForColumnIndex(int index) const;
  /// An integer, a double, a text, bytes, or the null value.
  [[nodiscard]] Value objectForColumnIndex(int index) const;
  [[nodiscard]] bool columnIndexIsNull(int index) const;

  [[nodiscard]] int intForColumn(std::string_view name) const { return intForColumnIndex(columnIndexForName(name)); }
  [[nodiscard]] long longForColumn(std::string_view name) const { return longForColumnIndex(columnIndexForName(name)); }
  [[nodiscard]] std::int64_t longLongIntForColumn(std::string_view name) const {
    return longLongIntForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] std::uint64_t unsignedLongLongIntForColumn(std::string_view name) const {
    return unsignedLongLongIntForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] bool boolForColumn(std::string_view name) const { return boolForColumnIndex(columnIndexForName(name)); }
  [[nodiscard]] double doubleForColumn(std::string_view name) const {
    return doubleForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] std::optional<std::string> stringForColumn(std::string_view name) const {
    return stringForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] const char* UTF8StringForColumnName(std::string_view name) const {
    return UTF8StringForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] std::optional<Date> dateForColumn(std::string_view name) const {
    return dateForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] std::optional<Data> dataForColumn(std::string_view name) const {
    return dataForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> dataNoCopyForColumn(std::string_view name) const {
    return dataNoCopyForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] Value objectForColumnName(std::string_view name) const {
    return objectForColumnIndex(columnIndexForName(name));
  }
  [[nodiscard]] bool columnIsNull(std::string_view name) const { return columnIndexIsNull(columnIndexForName(name)); }
  [[nodiscard]] Value operator[](int index) const { return objectForColumnIndex(index); }
  [[nodiscard]] Value operator[](std::string_view name) const { return objectForColumnName(name); }

  /// The current row by column name, with the null value for NULL; nullopt, with a warning, when there is no row.
  [[nodiscard]] std::optional<Dictionary> resultDictionary() const;
  /// Hands the current row to an object's setter, column by column: the name, and the text, nullopt for NULL.
  void kvcMagic(const std::function<void(const std::string& column, std::optional<std::string> text)>& setter) const;

 private:
  FMKLVResultSet(std::shared_ptr<FMKLVStatement> statement, FMKLVDatabase& parentDB);
  [[nodiscard]] bool hasColumn(int index) const noexcept;

  FMKLVDatabase* parentDB_;  // none once closed
  std::shared_ptr<FMKLVStatement> statement_;
  std::string query_;
  mutable std::map<std::string, int> columnNameToIndexMap_;  // lower-cased names, filled on first use
};

}  // namespace kelvo
