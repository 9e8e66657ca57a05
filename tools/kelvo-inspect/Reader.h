#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"
#include "sqlite/FMKLVDatabase.h"

namespace kelvo::inspect {

[[nodiscard]] std::string databaseOf(const std::string& home);
[[nodiscard]] std::string libraryOf(const std::string& home);

/// Returns the dictionary in a JSON text, empty if there is none.
[[nodiscard]] Dictionary dictionaryFromJSON(const std::optional<std::string>& text);
/// Returns the attributes in a record's file, where they are one JSON text within the JSON.
[[nodiscard]] Dictionary attributesOfRecord(const std::string& path);
/// Returns `attributes` with the host's own ones, which are nested in them, beside the others.
[[nodiscard]] Dictionary unnested(const Dictionary& attributes);

/// Returns an SQL name in quotes.
[[nodiscard]] std::string quotedName(std::string_view name);

/// Reads rows through a read-only connection. On failure, `rows` returns no rows and `problem` the reason.
class Reader {
 public:
  explicit Reader(const std::string& path);

  [[nodiscard]] std::vector<Dictionary> rows(const std::string& sql, const Array& arguments = {});
  /// Returns the names of the events tables by the id of their session.
  [[nodiscard]] std::map<std::string, std::string> eventsTables();
  [[nodiscard]] bool hasTable(std::string_view name);

  [[nodiscard]] const std::string& problem() const noexcept { return problem_; }
  void setProblem(std::string problem) { problem_ = std::move(problem); }

 private:
  FMKLVDatabase database_;
  std::string problem_;
};

/// The wall clock of one session's events, which count whole seconds from the moment that the library was loaded.
class SessionClock {
 public:
  /// Reads the session's files in `library`. If they are gone, the clock starts at the launch time in the id.
  SessionClock(const std::string& library, const std::string& session);

  /// Returns milliseconds since 1970, null if `seconds` is no number.
  [[nodiscard]] Value timeOf(const Value& seconds) const;

 private:
  std::int64_t start_ = 0;  // milliseconds since 1970
};

}  // namespace kelvo::inspect
