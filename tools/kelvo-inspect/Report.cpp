#include "kelvo-inspect/Report.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <string_view>
#include <vector>

#include "storage/KLVSchema.h"

namespace kelvo::inspect {
namespace {

constexpr std::size_t kLongestContent = 100;  // bytes
constexpr std::int64_t kMillisecondsPerSecond = 1000;

bool isControlCharacter(char byte) {
  constexpr char kDelete = 0x7f;
  return static_cast<unsigned char>(byte) < ' ' || byte == kDelete;
}

/// Returns true for the second and later bytes of a UTF-8 character.
bool continuesCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

std::string printable(std::string text) {
  for (char& byte : text) {
    if (isControlCharacter(byte)) byte = '?';
  }
  return text;
}

std::string textOf(const Value& value) {
  return value.isNull() ? "-" : printable(description(value));
}

/// Cuts a long text between two characters and appends dots.
std::string shortened(std::string text) {
  if (text.size() <= kLongestContent) return text;
  std::size_t end = kLongestContent;
  while (end > 0 && continuesCharacter(text[end])) --end;
  return text.substr(0, end) + " ...";
}

/// Returns milliseconds since 1970 as local time.
std::string timeOf(const Value& milliseconds) {
  if (!milliseconds.isNumber()) return "-";
  const auto seconds = static_cast<std::time_t>(milliseconds.asInt64() / kMillisecondsPerSecond);
  std::tm local{};
  return ::localtime_r(&seconds, &local) == nullptr ? "-" : fmt::format("{:%Y-%m-%d %H:%M:%S}", local);
}

/// Returns the elements of an array of dictionaries; none if `value` is not an array.
std::vector<Dictionary> dictionariesIn(const Value& value) {
  std::vector<Dictionary> all;
  for (const Value& element : value.asArray().value_or(Array())) {
    all.push_back(element.asDictionary().value_or(Dictionary()));
  }
  return all;
}

/// A table whose columns are as wide as their longest cell.
class Table {
 public:
  Table(std::string title, std::vector<std::string> header) : title_(std::move(title)) { add(std::move(header)); }

  void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

  [[nodiscard]] std::string text() const {
    if (rows_.size() == 1) return fmt::format("\n{}: none\n", title_);
    std::vector<std::size_t> widths(rows_.front().size());
    for (const auto& row : rows_) {
      for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string all = fmt::format("\n{} ({})\n", title_, rows_.size() - 1);
    for (const auto& row : rows_) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) line += fmt::format("  {:<{}}", row[i], widths[i]);
      all += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
    }
    return all;
  }

 private:
  std::string title_;
  std::vector<std::vector<std::string>> rows_;
};

std::string countsByKind(const Dictionary& events) {
  std::int64_t all = 0;
  std::string kinds;
  for (const auto& [kind, count] : events) {
    all += count.asInt64();
    kinds += fmt::format("{}{} {}", kinds.empty() ? "" : ", ", printable(kind), count.asInt64());
  }
  return kinds.empty() ? "0" : fmt::format("{} ({})", all, kinds);
}

std::string sessions(const Dictionary& home) {
  Table table("Sessions", {"id", "launched", "type", "seconds", "events stored", "chunks accepted", "not cut yet"});
  Table chunks("Chunks", {"session", "number", "events", "status", "sent"});
  for (const Dictionary& session : dictionariesIn(home["sessions"])) {
    std::size_t accepted = 0;
    const auto entries = dictionariesIn(session["chunks"]);
    for (const Dictionary& chunk : entries) {
      const bool arrived = chunk["accepted"].asBool();
      accepted += arrived ? 1 : 0;
      std::string times;
      for (const Value& time : chunk["reporting_times"].asArray().value_or(Array())) {
        times += (times.empty() ? "" : ", ") + timeOf(time);
      }
      chunks.add({textOf(session["id"]), textOf(chunk["number"]), textOf(chunk["start"]) + "-" + textOf(chunk["end"]),
                  arrived ? "accepted" : "waiting", times});
    }
    table.add({textOf(session["id"]), timeOf(session["launch_time"]), textOf(session["launch_type"]),
               fmt::format("{:.1f}", session["duration"].asDouble()),
               countsByKind(session["events"].asDictionary().value_or(Dictionary())),
               fmt::format("{} of {}", accepted, entries.size()), textOf(session["not_cut"])});
  }
  return table.text() + chunks.text();
}

std::string rows(const Dictionary& home, std::string_view key, const std::string& title,
                 const std::vector<std::string_view>& columns) {
  Table table(title, {columns.begin(), columns.end()});
  for (const Dictionary& row : dictionariesIn(home[key])) {
    std::vector<std::string> cells;
    for (const auto& column : columns) cells.push_back(textOf(row[column]));
    table.add(std::move(cells));
  }
  return table.text();
}

std::string files(const Dictionary& home) {
  Table table("Files in Library", {"path", "bytes", "content"});
  for (const Dictionary& file : dictionariesIn(home["files"])) {
    const auto* problem = file["problem"].get<std::string>();
    const auto content = file.contains("content") ? shortened(textOf(file["content"])) : std::string();
    table.add({textOf(file["path"]), textOf(file["bytes"]),
               problem != nullptr ? "UNREADABLE: " + printable(*problem) : content});
  }
  return table.text();
}

std::string defaults(const Dictionary& home) {
  Table table("User defaults", {"key", "value"});
  for (const auto& [key, value] : home["user_defaults"].asDictionary().value_or(Dictionary())) {
    table.add({printable(key), shortened(textOf(value))});
  }
  return table.text();
}

}  // namespace

std::string report(const Dictionary& home) {
  const Dictionary database = home["database"].asDictionary().value_or(Dictionary());
  std::string text = fmt::format("Home {}{}\n", textOf(home["home"]),
                                 home["used_by"].isNull() ? "" : ", used by process " + textOf(home["used_by"]));
  text += fmt::format("Database {}, {} bytes{}\n", textOf(database["path"]), textOf(database["bytes"]),
                      database.contains("problem") ? ": " + textOf(database["problem"]) : "");
  text += sessions(home);
  text += rows(home, "lifetime_events", "Lifetime counts", {kKLVLifetimeEventName, kKLVLifetimeCount});
  text += rows(home, "aggregate_events", "Aggregate events",
               {kKLVAggSid, kKLVAggName, kKLVAttrKey, kKLVAttrValue, kKLVAggCount});
  return text + files(home) + defaults(home);
}

}  // namespace kelvo::inspect
