#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace kelvo::collector {

/// A SQLite connection that keeps its statements prepared. One thread at a time.
///
/// A statement that fails is remembered rather than reported where it ran, so that code which writes many rows reads
/// straight on; a transaction is committed only when nothing failed in it.
class Database {
 public:
  /// Opens or makes the file, readable by its owner only; throws std::runtime_error when it cannot be used, or when
  /// another collector uses it.
  explicit Database(const std::string& path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void run(const char* sql);
  /// Row of the last insertion.
  [[nodiscard]] std::int64_t lastRow() const noexcept;
  /// Whether the last INSERT, UPDATE or DELETE touched a row.
  [[nodiscard]] bool changed() const noexcept;

  /// Does `work` whole or not at all; false when something failed in it.
  template <class Work>
  [[nodiscard]] bool transaction(Work work) {
    failed_ = false;
    run("BEGIN");
    if (!failed_) work();
    if (!failed_) run("COMMIT");
    if (!failed_) return true;
    run("ROLLBACK");
    return false;
  }

  class Query;

 private:
  struct Closer {
    void operator()(sqlite3* connection) const noexcept;
  };
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const noexcept;
  };

  [[nodiscard]] sqlite3_stmt* prepared(const char* sql);

  std::unique_ptr<sqlite3, Closer> connection_;
  std::unordered_map<const char*, std::unique_ptr<sqlite3_stmt, Finalizer>> statements_;
  bool failed_ = false;
};

/// One run of a statement: parameters are bound and columns are read from left to right. The text must be a literal:
/// a statement is known by its address, and two runs of the same text must not overlap.
class Database::Query {
 public:
  template <class... Parameters>
  Query(Database& database, const char* sql, const Parameters&... parameters)
      : database_(database), statement_(database.prepared(sql)) {
    (bind(parameters), ...);
  }
  ~Query();
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  void bind(std::int64_t number);
  void bind(int number) { bind(static_cast<std::int64_t>(number)); }
  void bind(std::size_t number) { bind(static_cast<std::int64_t>(number)); }
  void bind(double number);
  void bind(std::string_view text);
  void bind(const char* text) { bind(std::string_view(text)); }
  void bind(const std::string& text) { bind(std::string_view(text)); }
  void bind(std::nullptr_t);
  void bindBytes(std::string_view bytes);

  /// Steps to the next row; false when there is none.
  bool next();
  /// Runs to its end.
  void execute() {
    while (next()) {
    }
  }

  [[nodiscard]] bool isNull() const;  ///< of the column that is read next
  std::int64_t number();
  double real();
  std::string text();

 private:
  Database& database_;
  sqlite3_stmt* statement_;
  int parameter_ = 0;
  int column_ = 0;
};

}  // namespace kelvo::collector
