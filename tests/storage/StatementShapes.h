#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "storage/KLVPersistantStore.h"

namespace kelvo::test {

/// Records every statement that SQLite runs, on each connection of the process that is opened after `begin`. For one
/// thread at a time.
namespace RanStatements {
void begin();
/// Records no statement of connections that are opened from now on.
void end();
/// Returns the statements since the last call, as SQLite ran them.
std::vector<std::string> take();
}  // namespace RanStatements

/// Returns the terms of a statement, separated by blanks. Each literal is replaced: texts by "TEXT", numbers by
/// "NUMBER". Names in quotes stay.
std::string shapeOf(std::string_view statement);

/// A call of the store with one foreign text.
struct StoreOperation {
  /// The text is a value between quotes; or a value that is bound, so any text may run; or the name of a column.
  enum class Place { quoted, bound, name };

  const char* name;
  Place place;
  std::function<bool(KLVPersistantStore&, const std::string& foreign)> run;  ///< returns whether it succeeds

  /// Returns whether the store must refuse the call under the current delivery rules.
  [[nodiscard]] bool refuses(const std::string& foreign) const;
};
/// All statements of the store, with a foreign text in each place where it may go. Run in this order, they leave no row
/// and no table, unless one is refused. They need the tables "aggregate_events" and "chunkmeta".
const std::vector<StoreOperation>& storeOperations();

}  // namespace kelvo::test
