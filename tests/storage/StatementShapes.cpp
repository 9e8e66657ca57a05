#include "storage/StatementShapes.h"

#include <sqlite3.h>

#include <cctype>
#include <utility>

#include "storage/KLVSchema.h"

namespace kelvo::test {
namespace {

std::vector<std::string> ran;

int noteStatement(unsigned, void*, void* statement, void*) {
  ran.emplace_back(sqlite3_sql(static_cast<sqlite3_stmt*>(statement)));
  return 0;
}

int traceConnection(sqlite3* connection, const char**, const sqlite3_api_routines*) {
  return sqlite3_trace_v2(connection, SQLITE_TRACE_STMT, noteStatement, nullptr);
}

bool isPartOfWord(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_' || character < 0;
}

/// Returns the length of the term at the beginning of `text`: a comment, a text or name in quotes, a word or number, or
/// one other character.
std::size_t lengthOfTerm(std::string_view text) {
  const auto upTo = [&](std::string_view end, std::size_t from) {
    const auto found = text.find(end, from);
    return found == text.npos ? text.size() : found + end.size();
  };
  if (text.substr(0, 2) == "--") return upTo("\n", 2);
  if (text.substr(0, 2) == "/*") return upTo("*/", 2);
  if (text[0] == '[') return upTo("]", 1);
  if (text[0] == '\'' || text[0] == '"' || text[0] == '`') {
    std::size_t end = upTo(text.substr(0, 1), 1);
    while (end < text.size() && text[end] == text[0]) end = upTo(text.substr(0, 1), end + 1);  // a doubled quote
    return end;
  }
  std::size_t end = 1;
  while (isPartOfWord(text[0]) && end < text.size() && isPartOfWord(text[end])) ++end;
  return end;
}

constexpr const char* kCounts = "aggregate_events";

}  // namespace

void RanStatements::begin() {
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(traceConnection));
}

void RanStatements::end() {
  sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(traceConnection));
}

std::vector<std::string> RanStatements::take() {
  return std::exchange(ran, {});
}

std::string shapeOf(std::string_view statement) {
  std::string shape;
  while (!statement.empty()) {
    const std::string_view term = statement.substr(0, lengthOfTerm(statement));
    statement.remove_prefix(term.size());
    if (std::isspace(static_cast<unsigned char>(term[0])) != 0) continue;
    const bool isNumber = std::isdigit(static_cast<unsigned char>(term[0])) != 0;
    shape.append(term[0] == '\'' ? "TEXT" : isNumber ? "NUMBER" : term).append(" ");
  }
  return shape;
}

bool StoreOperation::refuses(const std::string& foreign) const {
  if (place == Place::name) return plainName(foreign).refused;
  return place == Place::quoted && isRefusedValue(foreign);
}

const std::vector<StoreOperation>& storeOperations() {
  using Store = KLVPersistantStore;
  using Text = const std::string&;
  using Row = Dictionary;
  constexpr auto kQuoted = StoreOperation::Place::quoted, kName = StoreOperation::Place::name;
  static const std::vector<StoreOperation> all = {
      {"create", kQuoted, [](Store& s, Text t) { return s.createEventsTableWithTableName("events_" + t); }},
      {"insert into", kQuoted,
       [](Store& s, Text t) {
         return s.insertDataWithTableName("events_" + t, Row{{"id", 1}});
       }},
      {"exists", kQuoted, [](Store& s, Text t) { return s.tableExists(t).has_value(); }},
      {"all of", kQuoted, [](Store& s, Text t) { return s.retrieveAllDataWithTableName("events_" + t)->size() == 1; }},
      {"number of", kQuoted, [](Store& s, Text t) { return s.retrieveNumberOfRecordsInTable("events_" + t) == 1; }},
      {"last of", kQuoted, [](Store& s, Text t) { return s.lastIdentifierInTable("events_" + t) == 1U; }},
      {"drop", kQuoted, [](Store& s, Text t) { return s.removeTableWithName("events_" + t); }},
      {"insert", StoreOperation::Place::bound,
       [](Store& s, Text t) {
         return s.insertDataWithTableName(kCounts, Row{{"sid", t}, {"name", t}});
       }},
      {"bind", kQuoted,
       [](Store& s, Text t) {
         return s.updateDataWithTableName(kCounts, Row{{"name", t}}, "sid", t);
       }},
      {"count", kQuoted,
       [](Store& s, Text t) {
         return s.updateDataWithTableName(kCounts, Row{{"e_count", 1}}, Row{{"sid", t}});
       }},
      {"count all", kQuoted,
       [](Store& s, Text t) {
         return s.updateAggregateEventsCountRecordWithCount(2, Row{{"sid", t}, {"name", t}});
       }},
      {"end", kQuoted, [](Store& s, Text t) { return s.endOfChunks(t) == 0U; }},
      {"sum", kQuoted, [](Store& s, Text t) { return s.sumInTable(kCounts, "e_count", "sid", t) == 2; }},
      {"rows", kQuoted, [](Store& s, Text t) { return s.countInTable(kCounts, "sid", t) == 1; }},
      {"equal", kQuoted,
       [](Store& s, Text t) {
         return s.retrieveDataWithTableName(kCounts, "sid", t).value_or(Store::Rows()).size() == 1;
       }},
      {"range", kQuoted,
       [](Store& s, Text t) { return s.retrieveDataWithTableName("events_base", 1, 2, "id", t).has_value(); }},
      {"select", kQuoted,
       [](Store& s, Text t) {
         return s.retrieveDataForIdentifier("sid", kCounts, Row{{"name", t}}) == Store::Rows{Row{{"sid", t}}};
       }},
      {"delete", kQuoted, [](Store& s, Text t) { return s.removeDataWithTableName(kCounts, "sid", t); }},

      {"insert a", kName,
       [](Store& s, Text t) {
         return s.insertDataWithTableName(kCounts, Row{{t, "x"}});
       }},
      {"bind a", kName,
       [](Store& s, Text t) {
         return s.updateDataWithTableName(kCounts, Row{{t, "y"}}, t, "x");
       }},
      {"count a", kName,
       [](Store& s, Text t) {
         return s.updateDataWithTableName(kCounts, Row{{t, 1}}, Row{{t, "y"}});
       }},
      {"count in", kName,
       [](Store& s, Text t) {
         return s.updateDataWithTableName(t, Row{{"end", 1}}, Row{{"id", "x"}});
       }},
      {"sum of", kName, [](Store& s, Text t) { return s.sumInTable(kCounts, t, t, "x").has_value(); }},
      {"rows by", kName, [](Store& s, Text t) { return s.countInTable(kCounts, t, "x").has_value(); }},
      {"equal by", kName, [](Store& s, Text t) { return s.retrieveDataWithTableName(kCounts, t, 1).has_value(); }},
      {"range by", kName,
       [](Store& s, Text t) { return s.retrieveDataWithTableName("events_base", 1, 2, t, "x").has_value(); }},
      {"select a", kName,
       [](Store& s, Text t) {
         return s.retrieveDataForIdentifier(t, kCounts, Row{{t, 1}}).has_value();
       }},
      {"values of", kName, [](Store& s, Text t) { return !s.retrieveSetOfValuesFromTable(kCounts, t).empty(); }},
      {"delete by", kName, [](Store& s, Text t) { return s.removeDataWithTableName(kCounts, t, 1); }},
  };
  return all;
}

}  // namespace kelvo::test
