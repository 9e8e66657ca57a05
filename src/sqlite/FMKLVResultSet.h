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

/// A cursor over the rows of a query. It starts before the first row.
///
/// It closes after its last row, with its connection, or when it is destroyed. The statement keeps the arguments.
/// Thread: the connection's.
class FMKLVResultSet {
 public:
  /// Marks the statement as in use.
  static std::unique_ptr<FMKLVResultSet> resultSetWithStatement(std::shared_ptr<FMKLVStatement> statement,
                                                                FMKLVDatabase& parentDB);
  FMKLVResultSet(const FMKLVResultSet&) = delete;
  FMKLVResultSet& operator=(const FMKLVResultSet&) = delete;
  ~FMKLVResultSet() { close(); }

  // --- Rows.

  /// Moves to the next row. At the end or after a failure, which is logged, it closes and returns false.
  [[nodiscard]] bool next() { return nextWithError(nullptr); }
  /// The same, and stores a failure in `error` unless that is nullptr. The end of the rows does not change `error`.
  [[nodiscard]] bool nextWithError(FMKLVError* error);
  /// Returns whether there is a current row.
  [[nodiscard]] bool hasAnotherRow() const noexcept;
  void close();

  // --- Columns.

  [[nodiscard]] const std::string& query() const noexcept { return query_; }
  [[nodiscard]] int columnCount() const noexcept;
  /// Ignores case. Returns -1 and logs a warning if there is no such column.
  [[nodiscard]] int columnIndexForName(std::string_view name) const;
  [[nodiscard]] std::string columnNameForIndex(int index) const;

  // --- The current row. SQLite's rules convert the values. NULL, a missing column and a missing row give 0, false,
  // nullopt or nullptr.

  /// Clamps the value to 32 bits.
  [[nodiscard]] int intForColumnIndex(int index) const;
  [[nodiscard]] long longForColumnIndex(int index) const { return static_cast<long>(longLongIntForColumnIndex(index)); }
  [[nodiscard]] std::int64_t longLongIntForColumnIndex(int index) const;
  [[nodiscard]] std::uint64_t unsignedLongLongIntForColumnIndex(int index) const {
    return static_cast<std::uint64_t>(longLongIntForColumnIndex(index));
  }
  [[nodiscard]] bool boolForColumnIndex(int index) const { return longLongIntForColumnIndex(index) != 0; }
  [[nodiscard]] double doubleForColumnIndex(int index) const;
  [[nodiscard]] std::optional<std::string> stringForColumnIndex(int index) const;
  /// The pointer is valid until the next row or `close`.
  [[nodiscard]] const char* UTF8StringForColumnIndex(int index) const;
  /// Returns the value if it is a text. It is valid until the next row or `close`.
  [[nodiscard]] std::optional<std::string_view> textNoCopyForColumnIndex(int index) const;
  /// Reads a text with the connection's date formatter, otherwise seconds since 1970. Returns nullopt if the value is
  /// not a date.
  [[nodiscard]] std::optional<Date> dateForColumnIndex(int index) const;
  [[nodiscard]] std::optional<Data> dataForColumnIndex(int index) const;
  /// The bytes are valid until the next row or `close`.
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> dataNoCopyForColumnIndex(int index) const;
  /// Returns a signed 64-bit integer, a double, a text, bytes, or the null value.
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

  /// Returns the current row by column name. Returns nullopt and logs a warning if there is no row.
  [[nodiscard]] std::optional<Dictionary> resultDictionary() const;
  /// Calls `setter` for every column of the current row. The text is nullopt for NULL.
  void kvcMagic(const std::function<void(const std::string& column, std::optional<std::string> text)>& setter) const;

 private:
  FMKLVResultSet(std::shared_ptr<FMKLVStatement> statement, FMKLVDatabase& parentDB);
  [[nodiscard]] bool hasColumn(int index) const noexcept;

  FMKLVDatabase* parentDB_;  // nullptr once closed
  std::shared_ptr<FMKLVStatement> statement_;
  std::string query_;
  mutable std::map<std::string, int> columnNameToIndexMap_;  // by lower-cased name; filled on first use
};

}  // namespace kelvo
