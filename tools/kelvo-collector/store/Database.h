#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace kelvo::collector {

/// A SQLite connection that caches its prepared statements. Not thread-safe: the owner serialises all use.
///
/// A failed statement only sets a flag, so code that writes many rows needs no checks. `transaction` reads the flag and
/// commits only if every statement succeeded.
class Database {
 public:
  /// Opens `path`, or creates it with mode 0600. Throws std::runtime_error if the file cannot be used or another
  /// process has it open.
  explicit Database(const std::string& path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// Runs one or more statements without parameters.
  void run(const char* sql);
  /// Returns the key of the last inserted row.
  [[nodiscard]] std::int64_t lastRow() const noexcept;
  /// Returns the number of rows that the last INSERT, UPDATE or DELETE affected.
  [[nodiscard]] std::int64_t changes() const noexcept;
  [[nodiscard]] bool changed() const noexcept { return changes() > 0; }
  /// Makes the running transaction fail.
  void fail() noexcept { failed_ = true; }

  /// Runs `work` in a transaction. Rolls back and returns false if any statement failed.
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

  /// Gives the space of deleted rows back to the system, so that no byte of them stays in the files. Must be called
  /// outside a transaction.
  void shrink();

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
  std::unordered_map<const char*, std::unique_ptr<sqlite3_stmt, Finalizer>> statements_;  // by the text's address
  bool failed_ = false;
};

/// One run of a statement. Parameters are bound and columns are read from left to right.
///
/// `sql` must be a string literal, because the cache is keyed by its address. Two queries with the same text must not
/// exist at the same time, because they would share one prepared statement.
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

  /// Steps to the next row. Returns false if there is none.
  bool next();
  /// Runs the statement to its end.
  void execute() {
    while (next()) {
    }
  }

  /// Returns true if the next column to read is NULL.
  [[nodiscard]] bool isNull() const;
  // Each of these returns the next column.
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
