#include <sqlite3.h>

#include <algorithm>
#include <limits>

#include "sqlite/FMKLVDatabase.h"
#include "sqlite/FMKLVResultSet.h"
#include "util/KLVLogger.h"

namespace kelvo {

/// SQLite records a wrong column index as a failure of the connection, so the getters check the index first.
bool FMKLVResultSet::hasColumn(int index) const noexcept {
  return statement_ && index >= 0 && index < sqlite3_data_count(statement_->statement());
}

bool FMKLVResultSet::columnIndexIsNull(int index) const {
  return !hasColumn(index) || sqlite3_column_type(statement_->statement(), index) == SQLITE_NULL;
}

int FMKLVResultSet::intForColumnIndex(int index) const {
  using Limits = std::numeric_limits<int>;
  const auto number = longLongIntForColumnIndex(index);
  return static_cast<int>(std::clamp<std::int64_t>(number, Limits::min(), Limits::max()));
}

std::int64_t FMKLVResultSet::longLongIntForColumnIndex(int index) const {
  return hasColumn(index) ? sqlite3_column_int64(statement_->statement(), index) : 0;
}

double FMKLVResultSet::doubleForColumnIndex(int index) const {
  return hasColumn(index) ? sqlite3_column_double(statement_->statement(), index) : 0;
}

std::optional<std::string> FMKLVResultSet::stringForColumnIndex(int index) const {
  const char* text = UTF8StringForColumnIndex(index);
  if (text == nullptr) return std::nullopt;
  return std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement_->statement(), index)));
}

const char* FMKLVResultSet::UTF8StringForColumnIndex(int index) const {
  if (columnIndexIsNull(index)) return nullptr;
  return reinterpret_cast<const char*>(sqlite3_column_text(statement_->statement(), index));
}

std::optional<std::string_view> FMKLVResultSet::textNoCopyForColumnIndex(int index) const {
  if (!hasColumn(index)) return std::nullopt;
  sqlite3_stmt* row = statement_->statement();
  if (sqlite3_column_type(row, index) != SQLITE_TEXT) return std::nullopt;
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, index));
  if (text == nullptr) return std::nullopt;  // out of memory
  return std::string_view(text, static_cast<std::size_t>(sqlite3_column_bytes(row, index)));
}

std::optional<Date> FMKLVResultSet::dateForColumnIndex(int index) const {
  if (columnIndexIsNull(index)) return std::nullopt;
  if (!parentDB_->hasDateFormatter()) return dateFromSecondsSince1970(doubleForColumnIndex(index));
  const auto text = stringForColumnIndex(index);
  return text ? parentDB_->dateFromString(*text) : std::nullopt;
}

std::optional<Data> FMKLVResultSet::dataForColumnIndex(int index) const {
  const auto bytes = dataNoCopyForColumnIndex(index);
  if (!bytes) return std::nullopt;
  return Data(bytes->begin(), bytes->end());
}

std::optional<std::span<const std::uint8_t>> FMKLVResultSet::dataNoCopyForColumnIndex(int index) const {
  if (columnIndexIsNull(index)) return std::nullopt;
  const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_->statement(), index));
  if (bytes == nullptr) return std::span<const std::uint8_t>();  // empty
  return std::span(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_->statement(), index)));
}

Value FMKLVResultSet::objectForColumnIndex(int index) const {
  if (!hasColumn(index)) return nullptr;
  sqlite3_stmt* row = statement_->statement();
  switch (sqlite3_column_type(row, index)) {
    case SQLITE_INTEGER: return static_cast<std::int64_t>(sqlite3_column_int64(row, index));
    case SQLITE_FLOAT: return sqlite3_column_double(row, index);
    case SQLITE_BLOB: {
      const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(row, index));
      return bytes == nullptr ? Data() : Data(bytes, bytes + sqlite3_column_bytes(row, index));
    }
    case SQLITE_TEXT: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, index));
      if (text == nullptr) return nullptr;  // out of memory
      return std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(row, index)));
    }
    default: return nullptr;
  }
}

std::optional<Dictionary> FMKLVResultSet::resultDictionary() const {
  if (!hasAnotherRow()) {
    KLV_WARN("Warning: There seem to be no columns in this set.");
    return std::nullopt;
  }
  const int count = columnCount();
  Dictionary row;
  for (int index = 0; index < count; ++index) row.set(columnNameForIndex(index), objectForColumnIndex(index));
  return row;
}

void FMKLVResultSet::kvcMagic(
    const std::function<void(const std::string& column, std::optional<std::string> text)>& setter) const {
  for (int index = 0; hasColumn(index); ++index) setter(columnNameForIndex(index), stringForColumnIndex(index));
}

}  // namespace kelvo
