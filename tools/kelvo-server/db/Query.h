#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct pg_result;

namespace kelvo::server::db {

/// A parameter of a statement, in PostgreSQL's binary form; nullopt is NULL.
using Parameter = std::optional<std::string>;

/// Microseconds since 2000, the database's own unit of time. INT64_MIN is '-infinity'.
struct Time {
  std::int64_t microseconds = 0;
  /// Converts milliseconds since 1970, clamped to the years 1970 to 9999. The first millisecond of 1970 is the least.
  static Time fromMilliseconds(std::int64_t milliseconds) noexcept;
  static constexpr Time epoch() noexcept { return {-946684800LL * 1000000}; }  ///< the start of 1970
  friend bool operator<(Time left, Time right) noexcept { return left.microseconds < right.microseconds; }
};

/// Bytes that are no text.
struct Bytes {
  std::string content;
};

/// Builds the parameter for a one-dimensional array, element by element.
template <class T>
class ArrayParameter {
 public:
  ArrayParameter() : bytes_(kHeader, '\0') {}
  void add(const T& element);
  void add(const std::optional<T>& element) { element ? add(*element) : addNull(); }
  /// Returns the parameter. The array is empty afterwards, and must not be used.
  [[nodiscard]] Parameter take();

 private:
  static constexpr std::size_t kHeader = 20;
  void addNull();

  std::string bytes_;
  std::int32_t count_ = 0;
  bool hasNull_ = false;
};

[[nodiscard]] Parameter parameter(std::string_view text);

/// A statement's name in the list of the connection, and its parameters.
struct Query {
  std::size_t statement = 0;
  std::vector<Parameter> parameters = {};
};

/// The rows that a statement returned.
class Rows {
 public:
  explicit Rows(pg_result* result);
  [[nodiscard]] std::size_t size() const;
  /// Returns a field as text, empty if it is NULL.
  [[nodiscard]] std::string text(std::size_t row, int column) const;
  [[nodiscard]] bool isNull(std::size_t row, int column) const;

 private:
  std::shared_ptr<pg_result> result_;
};

struct Failure {
  std::string state;  ///< five characters of SQLSTATE, empty if the connection is lost
  std::string message;

  [[nodiscard]] bool isLoss() const { return state.empty(); }
  /// Returns true for a deadlock or a serialization failure: the same transaction may succeed if it is tried again.
  [[nodiscard]] bool isTransient() const { return state == "40P01" || state == "40001"; }
  /// Returns true if the database refuses the data themselves, so that another try fails, too.
  [[nodiscard]] bool isAboutData() const;
};

/// The result of a batch: the rows of each statement, or the first failure.
struct Outcome {
  std::vector<Rows> rows = {};
  std::optional<Failure> failure = std::nullopt;
};

}  // namespace kelvo::server::db
