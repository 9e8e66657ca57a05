#include "kelvo-server/answers/Metrics.h"

#include <fmt/format.h>

#include <iterator>
#include <string_view>

namespace kelvo::server {
namespace {

constexpr std::size_t kMostApps = 1000;
constexpr const char* kOtherApps = "(other)";

struct Family {
  const char* name;
  const char* help;
  Counter AppCounts::*counter;
  const char* type = "counter";
  const char* suffix = "_total";
};
constexpr Family kFamilies[] = {
    {"requests", "Requests of all kinds", &AppCounts::requests},
    {"chunks", "Chunks stored", &AppCounts::chunks},
    {"events", "Events stored", &AppCounts::events},
    {"duplicates", "Chunks that had arrived before", &AppCounts::duplicates},
    {"conflicts", "Chunks with a known id and other events", &AppCounts::conflicts},
    {"quarantined", "Bodies that are no chunk", &AppCounts::quarantined},
    {"dropped", "Chunks of erased devices", &AppCounts::dropped},
    {"erasures", "Devices erased", &AppCounts::erasures},
    {"refused_413", "Bodies that were too large", &AppCounts::tooLarge},
    {"refused_429", "Requests beyond the application's rate", &AppCounts::tooMany},
    {"refused_503", "Requests that could not be served", &AppCounts::unavailable},
    {"waiting_chunks", "Chunks that wait for their commit", &AppCounts::waiting, "gauge", ""}};

std::string escaped(std::string_view label) {
  std::string text;
  for (const char c : label) {
    if (c == '\\' || c == '"') text += '\\';
    text += c == '\n' ? ' ' : c;
  }
  return text;
}

}  // namespace

void AppCounts::committed(std::chrono::microseconds time) {
  const double seconds = std::chrono::duration<double>(time).count();
  for (std::size_t i = 0; i < kSeconds.size(); ++i) {
    if (seconds <= kSeconds[i]) ++commits[i];
  }
  ++commits.back();
  commitMicroseconds += static_cast<std::uint64_t>(time.count());
}

AppCounts& Metrics::of(const std::string& app) {
  const Lock lock(mutex_);
  const auto found = apps_.find(app);
  if (found != apps_.end()) return *found->second;
  auto& counts = apps_[apps_.size() < kMostApps ? app : kOtherApps];
  if (!counts) counts = std::make_unique<AppCounts>();
  return *counts;
}

std::string Metrics::text(const Gauges& gauges) const {
  std::string text;
  const auto out = std::back_inserter(text);
  const auto gauge = [&](const char* name, const char* help, const char* type, std::uint64_t value) {
    fmt::format_to(out, "# HELP kelvo_{0} {1}\n# TYPE kelvo_{0} {2}\nkelvo_{0} {3}\n", name, help, type, value);
  };
  gauge("connections", "Open connections", "gauge", gauges.connections);
  gauge("bytes_in_flight", "Bytes of the requests that are handled", "gauge", gauges.bytes);
  gauge("database_ready", "1 if the database can be reached", "gauge", gauges.isDatabaseReady ? 1 : 0);
  gauge("refused_connections_total", "Connections refused", "counter", gauges.refusedConnections);

  const Lock lock(mutex_);
  for (const Family& family : kFamilies) {
    const std::string name = std::string(family.name) + family.suffix;
    fmt::format_to(out, "# HELP kelvo_{0} {1}\n# TYPE kelvo_{0} {2}\n", name, family.help, family.type);
    for (const auto& [app, counts] : apps_) {
      fmt::format_to(out, "kelvo_{}{{app=\"{}\"}} {}\n", name, escaped(app), (counts.get()->*family.counter).load());
    }
  }
  fmt::format_to(out,
                 "# HELP kelvo_commit_seconds Time of the commits of chunks\n# TYPE kelvo_commit_seconds histogram\n");
  for (const auto& [app, counts] : apps_) {
    const std::string name = escaped(app);
    for (std::size_t i = 0; i < AppCounts::kSeconds.size(); ++i) {
      fmt::format_to(out, "kelvo_commit_seconds_bucket{{app=\"{}\",le=\"{}\"}} {}\n", name, AppCounts::kSeconds[i],
                     counts->commits[i].load());
    }
    fmt::format_to(out,
                   "kelvo_commit_seconds_bucket{{app=\"{0}\",le=\"+Inf\"}} {1}\n"
                   "kelvo_commit_seconds_count{{app=\"{0}\"}} {1}\nkelvo_commit_seconds_sum{{app=\"{0}\"}} {2}\n",
                   name, counts->commits.back().load(), static_cast<double>(counts->commitMicroseconds.load()) / 1e6);
  }
  return text;
}

}  // namespace kelvo::server
