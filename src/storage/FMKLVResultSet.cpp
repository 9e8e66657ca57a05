#include "storage/FMKLVResultSet.h"

#include <sqlite3.h>

#include <cstdint>
#include <utility>

#include "storage/FMKLVDatabase.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// Column names are ours or ASCII; a locale must not change what they mean.
std::string lowerCased(std::string text) {
  for (char& character : text) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return text;
}

}  // namespace

std::unique_ptr<FMKLVResultSet> FMKLVResultSet::resultSetWithStatement(std::unique_ptr<FMKLVStatement> statement,
                                                                       FMKLVDatabase& parentDB) {
  return std::unique_ptr<FMKLVResultSet>(new FMKLVResultSet(std::move(statement), parentDB));
}

FMKLVResultSet::FMKLVResultSet(std::unique_ptr<FMKLVStatement> statement, FMKLVDatabase& parentDB)
    : parentDB_(&parentDB), statement_(std::move(statement)), query_(statement_->query()) {
  statement_->setInUse(true);
}

bool FMKLVResultSet::nextWithError(FMKLVError* error) {
  const int code = sqlite3_step(statement_ ? statement_->statement() : nullptr);
  if (code == SQLITE_ROW) return true;
  if (code != SQLITE_DONE) {
    const FMKLVError failure =
        parentDB_ != nullptr ? parentDB_->lastError() : FMKLVError{"FMDatabase", code, "parentDB does not exist"};
    if (parentDB_ == nullptr || parentDB_->logsErrors()) {
      if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
        KLV_ERROR("Database busy");
      } else if (code == SQLITE_ERROR || code == SQLITE_MISUSE) {
        KLV_ERROR("Error calling sqlite3_step ({}: {}) rs", code, failure.message);
      } else {
        KLV_ERROR("Unknown error calling sqlite3_step ({}: {}) rs", code, failure.message);
      }
    }
    if (error != nullptr) *error = failure;
  }
  close();
  return false;
}

void FMKLVResultSet::close() {
  statement_.reset();
  if (auto* parent = std::exchange(parentDB_, nullptr)) parent->resultSetDidClose(*this);
}

int FMKLVResultSet::columnCount() const {
  return statement_ ? sqlite3_column_count(statement_->statement()) : 0;
}

int FMKLVResultSet::columnIndexForName(const std::string& name) {
  if (columnNameToIndexMap_.empty()) {
    for (int index = 0; index < columnCount(); ++index) {
      columnNameToIndexMap_[lowerCased(columnNameForIndex(index))] = index;
    }
  }
  const auto found = columnNameToIndexMap_.find(lowerCased(name));
  if (found != columnNameToIndexMap_.end()) return found->second;
  KLV_WARN("Warning: I could not find the column named '{}'.", name);
  return -1;
}

std::string FMKLVResultSet::columnNameForIndex(int index) const {
  const char* name = statement_ ? sqlite3_column_name(statement_->statement(), index) : nullptr;
  return name != nullptr ? name : "";
}

Value FMKLVResultSet::objectForColumnIndex(int index) const {
  if (!statement_ || index < 0 || index >= sqlite3_data_count(statement_->statement())) return nullptr;
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
  const int count = statement_ ? sqlite3_data_count(statement_->statement()) : 0;
  if (count == 0) {
    KLV_WARN("Warning: There seem to be no columns in this set.");
    return std::nullopt;
  }
  Dictionary row;
  for (int index = 0; index < count; ++index) row.set(columnNameForIndex(index), objectForColumnIndex(index));
  return row;
}

}  // namespace kelvo
