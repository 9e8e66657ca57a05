#include "road/Road.h"

#include <sqlite3.h>

#include <filesystem>
#include <memory>

#include "platform/JSON.h"

namespace kelvo::test {

Texts queried(const std::string& file, const std::string& query) {
  sqlite3* database = nullptr;
  sqlite3_open(file.c_str(), &database);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closer(database, sqlite3_close);
  sqlite3_busy_timeout(database, 20'000);  // another process may just open or close it
  Texts rows;
  const auto collect = [](void* all, int columns, char** values, char**) {
    std::string row;
    for (int i = 0; i < columns; ++i) row += (i > 0 ? "|" : "") + std::string(values[i] != nullptr ? values[i] : "");
    static_cast<Texts*>(all)->push_back(row);
    return 0;
  };
  char* error = nullptr;
  sqlite3_exec(database, query.c_str(), collect, &rows, &error);
  if (error != nullptr) rows.emplace_back(error);
  sqlite3_free(error);
  return rows;
}

Texts Road::files(const std::string& part) const {
  namespace fs = std::filesystem;
  Texts paths;
  std::error_code failure;
  for (fs::recursive_directory_iterator entry(homeOfLaunches_ + part, failure), end; entry != end;
       entry.increment(failure)) {
    if (entry->is_regular_file(failure)) paths.push_back(entry->path());
  }
  return paths;
}

Texts Road::stored(const std::string& query) const {
  return queried(homeOfLaunches_ + "/Documents/kelvo-db/v1.0.0/com.kelvo.sessions.sqlite", query);
}

Texts Road::storedEvents() const {
  Texts all;
  for (const auto& table : stored("select name from sqlite_master where name like 'events%'")) {
    for (auto& id : stored("select id from '" + table + "' order by identifier")) all.push_back(std::move(id));
  }
  return all;
}

std::vector<std::pair<std::string, std::string>> Road::arrivals() const {
  std::vector<std::pair<std::string, std::string>> all;
  for (const Value& chunk : service.chunks()) {
    const Value events = at(chunk, {"chunk_details", "app_events"});
    for (const Value& event : *events.get<Array>()) {
      const std::string name = description(at(event, {"name"}));
      if (name != "klv_app_opened") all.emplace_back(name, description(at(chunk, {"chunk_meta", "id"})));
    }
  }
  return all;
}

Texts Road::arrivedEvents() const {
  Texts names;
  for (const auto& [name, chunk] : arrivals()) names.push_back(name);
  return names;
}

Texts Road::arrived(std::string_view kind, std::string_view key) const {
  Texts all;
  for (const Value& chunk : service.chunks()) {
    const Array events = at(chunk, {"chunk_details", kind}).asArray().value_or(Array());
    for (const Value& event : events) all.push_back(description(at(event, {key})));
  }
  return all;
}

std::string Road::bundle(const std::string& kelvo, const std::string& more) {
  writeFileForTest(home() + "/app.bundle/Info.plist", R"(<plist version="1.0"><dict>)" + more +
                                                          "<key>Kelvo</key><dict>" + kelvo + "</dict></dict></plist>");
  return home() + "/app.bundle";
}

void Road::setLogLevel(const std::string& level) {
  writeFileForTest(library("com.kelvo.SDK.config.json"), R"({"enable": true, "log_level": ")" + level + R"("})");
}

Value at(const Value& value, std::initializer_list<std::string_view> path) {
  Value member = value;
  for (const auto& name : path) {
    const auto* dictionary = member.get<Dictionary>();
    member = dictionary != nullptr ? Value((*dictionary)[name]) : Value();
  }
  return member;
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (auto place = text.find(part); place != std::string::npos; place = text.find(part, place + 1)) ++found;
  return found;
}

}  // namespace kelvo::test
