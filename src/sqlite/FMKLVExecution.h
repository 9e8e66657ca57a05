#pragma once

#include <memory>
#include <string>

#include "sqlite/FMKLVArguments.h"
#include "sqlite/FMKLVError.h"
#include "sqlite/FMKLVResultSet.h"

namespace kelvo {

/// The forms in which a connection takes a statement and what its parameters are bound to (see `FMKLVArguments`).
///
/// One statement a call: what follows it in the text is not run. Every parameter needs a value.
class FMKLVExecution {
 public:
  using ResultSet = std::unique_ptr<FMKLVResultSet>;

  /// The rows, or nullptr. They stay valid without the arguments, and are closed at the latest with the connection.
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] ResultSet executeQuery(const std::string& sql, const Values&... arguments) {
    return queryWithArguments(sql, FMKLVArguments(arguments...));
  }
  /// For statements that give no rows.
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] bool executeUpdate(const std::string& sql, const Values&... arguments) {
    return updateWithArguments(sql, FMKLVArguments(arguments...), nullptr);
  }

  /// Tells a failure in `error`, too, unless that is nullptr; so does `update`.
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] bool executeUpdateWithErrorAndBindings(const std::string& sql, FMKLVError* error,
                                                       const Values&... arguments) {
    return updateWithArguments(sql, FMKLVArguments(arguments...), error);
  }
  template <class... Values>
  requires FMKLVBindable<Values...>
  [[nodiscard]] bool update(const std::string& sql, FMKLVError* error, const Values&... arguments) {
    return updateWithArguments(sql, FMKLVArguments(arguments...), error);
  }

  /// The items of `format` (see `FMKLVFormat`) become parameters; there must be a value for each, and no more.
  template <class... Values>
  [[nodiscard]] ResultSet executeQueryWithFormat(const std::string& format, const Values&... values) {
    return queryWithFormat(format, FMKLVArguments::list(values...));
  }
  template <class... Values>
  [[nodiscard]] bool executeUpdateWithFormat(const std::string& format, const Values&... values) {
    return updateWithFormat(format, FMKLVArguments::list(values...));
  }

  [[nodiscard]] virtual ResultSet queryWithArguments(const std::string& sql, const FMKLVArguments& arguments) = 0;
  [[nodiscard]] virtual bool updateWithArguments(const std::string& sql, const FMKLVArguments& arguments,
                                                 FMKLVError* error) = 0;

 protected:
  ~FMKLVExecution() = default;

 private:
  [[nodiscard]] virtual ResultSet queryWithFormat(const std::string& format, const Array& values) = 0;
  [[nodiscard]] virtual bool updateWithFormat(const std::string& format, const Array& values) = 0;
};

}  // namespace kelvo
