#include "kelvo-inspect/Report.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <string_view>
#include <vector>

#include "storage/KLVSchema.h"
#include "util/KLVSanitiser.h"

namespace kelvo::inspect {
namespace {

constexpr std::size_t kLongestContent = 100;  // bytes
constexpr std::int64_t kMillisecondsPerSecond = 1000;

/// Returns true for the second and later bytes of a UTF-8 character.
bool continuesCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

std::string textOf(const Value& value) {
  return value.isNull() ? "-" : onOneLine(description(value));
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

std::string waitingSince(const Value& milliseconds) {
  return "waiting since " + timeOf(milliseconds);
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
    kinds += fmt::format("{}{} {}", kinds.empty() ? "" : ", ", onOneLine(kind), count.asInt64());
  }
  return kinds.empty() ? "0" : fmt::format("{} ({})", all, kinds);
}

std::string sessions(const Dictionary& home) {
  Table table("Sessions", {"id", "launched", "type", "seconds", "events stored", "chunks accepted", "not cut yet",
                           "counts waiting", "waiting since"});
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
                  arrived ? "accepted" : waitingSince(chunk["waiting_since"]), times});
    }
    table.add({textOf(session["id"]), timeOf(session["launch_time"]), textOf(session["launch_type"]),
               fmt::format("{:.1f}", session["duration"].asDouble()),
               countsByKind(session["events"].asDictionary().value_or(Dictionary())),
               fmt::format("{} of {}", accepted, entries.size()), textOf(session["not_cut"]),
               textOf(session["counts_waiting"]), timeOf(session["waiting_since"])});
  }
  return table.text() + chunks.text();
}

std::string savedEvents(const Dictionary& home) {
  std::string text;
  for (const Dictionary& file : dictionariesIn(home["saved_events"])) {
    text += fmt::format("\nSaved for the next launch: {} events, {}\n",
                        file["events"].asArray().value_or(Array()).size(), waitingSince(file["time"]));
  }
  return text;
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

std::string journals(const Dictionary& home) {
  std::string text;
  for (const Dictionary& journal : dictionariesIn(home["journals"])) {
    text += fmt::format("\nJournal {}, {} bytes{}\n", textOf(journal["path"]), textOf(journal["bytes"]),
                        journal.contains("problem") ? ": " + textOf(journal["problem"]) : "");
    text +=
        fmt::format("  calls that are not stored yet: {}; torn: {}\n",
                    countsByKind(journal["unfinished"].asDictionary().value_or(Dictionary())), textOf(journal["torn"]));
  }
  return text;
}

std::string ledger(const Dictionary& home) {
  Table table("Ledger since the installation", {"entry", "events"});
  std::string faults;
  for (const auto& [entry, events] : home["ledger"].asDictionary().value_or(Dictionary())) {
    if (entry != "faults") table.add({entry, textOf(events)});
    for (const Value& fault : events.asArray().value_or(Array())) faults += "FAULT: " + textOf(fault) + '\n';
  }
  return table.text() + faults;
}

std::string files(const Dictionary& home) {
  Table table("Files in Library", {"path", "bytes", "content"});
  for (const Dictionary& file : dictionariesIn(home["files"])) {
    const auto* problem = file["problem"].get<std::string>();
    const auto content = file.contains("content") ? shortened(textOf(file["content"])) : std::string();
    table.add({textOf(file["path"]), textOf(file["bytes"]),
               problem != nullptr ? "UNREADABLE: " + onOneLine(*problem) : content});
  }
  return table.text();
}

std::string defaults(const Dictionary& home) {
  Table table("User defaults", {"key", "value"});
  for (const auto& [key, value] : home["user_defaults"].asDictionary().value_or(Dictionary())) {
    table.add({onOneLine(key), shortened(textOf(value))});
  }
  return table.text();
}

/// Values that the service expects as they are, but that surprise on this system.
struct Surprise {
  std::string_view value;
  std::string_view meaning;
};
constexpr Surprise kSurprises[] = {
    {"ios", "the platform's name for the service. It is the same on every system"},
    {"Simulator", "the application's mode: its bundle has no provisioning profile, as is usual on Linux"},
    {"Undefined", "the session's process name: the library does not record it"}};

/// Returns a line on each of these values that `text` shows as a JSON text, plain or within another text.
std::string notesOn(const std::string& text) {
  std::string notes;
  for (const auto& [value, meaning] : kSurprises) {
    const bool shown = text.find(fmt::format("\"{}\"", value)) != std::string::npos ||
                       text.find(fmt::format("\\\"{}\\\"", value)) != std::string::npos;
    if (shown) notes += fmt::format("  {}: {}\n", value, meaning);
  }
  return notes.empty() ? notes : "\nNotes\n" + notes;
}

}  // namespace

std::string report(const Dictionary& home) {
  const Dictionary database = home["database"].asDictionary().value_or(Dictionary());
  std::string text = fmt::format("Home {}{}\n", textOf(home["home"]),
                                 home["used_by"].isNull() ? "" : ", used by process " + textOf(home["used_by"]));
  text += fmt::format("Database {}, {} bytes{}\n", textOf(database["path"]), textOf(database["bytes"]),
                      database.contains("problem") ? ": " + textOf(database["problem"]) : "");
  text += sessions(home) + savedEvents(home) + journals(home) + ledger(home);
  text += rows(home, "lifetime_events", "Lifetime counts", {kKLVLifetimeEventName, kKLVLifetimeCount});
  text += rows(home, "aggregate_events", "Aggregate events",
               {kKLVAggSid, kKLVAggName, kKLVAttrKey, kKLVAttrValue, kKLVAggCount});
  text += files(home) + defaults(home);
  return text + notesOn(text);
}

std::string reportEvents(const Dictionary& events) {
  Table table("Events", {"time", "session", "number", "kind", "name", "status", "attributes"});
  for (const Dictionary& event : dictionariesIn(events["events"])) {
    table.add({timeOf(event["time"]), textOf(event["session"]), textOf(event["number"]), textOf(event["kind"]),
               textOf(event["name"]), event["accepted"].asBool() ? "accepted" : waitingSince(event["waiting_since"]),
               textOf(event["attributes"])});
  }
  const std::string text = table.text().substr(1);  // without the empty line above
  const std::string problem = events.contains("problem") ? "Database: " + textOf(events["problem"]) + "\n" : "";
  return problem + text + notesOn(text);
}

}  // namespace kelvo::inspect
