#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "storage/FMKLVError.h"
#include "storage/FMKLVStatement.h"

namespace kelvo {

class FMKLVDatabase;

/// A cursor over the rows of a query, standing before the first one at the start.
///
/// Open until `close`, the end of its rows, the end of its connection or its own. Used where its connection is.
class FMKLVResultSet {
 public:
  static std::unique_ptr<FMKLVResultSet> resultSetWithStatement(std::unique_ptr<FMKLVStatement> statement,
                                                                FMKLVDatabase& parentDB);
  FMKLVResultSet(const FMKLVResultSet&) = delete;
  FMKLVResultSet& operator=(const FMKLVResultSet&) = delete;
  ~FMKLVResultSet() { close(); }

  /// Moves to the next row; false, and closed, when there is none or SQLite reports a failure, which is logged.
  [[nodiscard]] bool next() { return nextWithError(nullptr); }
  /// As above; a failure is told in `error`, too, which the end of the rows leaves alone.
  [[nodiscard]] bool nextWithError(FMKLVError* error);
  void close();

  [[nodiscard]] const std::string& query() const noexcept { return query_; }
  [[nodiscard]] int columnCount() const;
  /// Ignores case; -1, with a warning, when there is none.
  [[nodiscard]] int columnIndexForName(const std::string& name);
  [[nodiscard]] std::string columnNameForIndex(int index) const;
  /// Of the current row: an integer, a double, a text, bytes, or the null value.
  [[nodiscard]] Value objectForColumnIndex(int index) const;
  /// The current row by column name, with the null value for NULL; nullopt, with a warning, when there is no row.
  [[nodiscard]] std::optional<Dictionary> resultDictionary() const;

 private:
  FMKLVResultSet(std::unique_ptr<FMKLVStatement> statement, FMKLVDatabase& parentDB);

  FMKLVDatabase* parentDB_;  // none once closed
  std::unique_ptr<FMKLVStatement> statement_;
  std::string query_;
  std::map<std::string, int> columnNameToIndexMap_;  // lower-cased names, filled on first use
};

}  // namespace kelvo
