#include "kelvo-server/store/Columns.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "kelvo-server/store/Statements.h"

namespace kelvo::server {
namespace {

using Texts = db::ArrayParameter<std::string>;
using Times = db::ArrayParameter<db::Time>;
using Numbers = db::ArrayParameter<std::int32_t>;

template <class... Arrays>
db::Query query(std::size_t statement, Arrays&... arrays) {
  db::Query made{statement};
  (made.parameters.push_back(arrays.take()), ...);
  return made;
}

/// The chunks of one session: the last one describes it.
struct SessionTotals {
  const Chunk* last = nullptr;
  std::optional<std::string> userId;
  double seconds = 0;
  bool isFirst = false;
  bool isFatal = false;
  std::int32_t chunks = 0;
  std::int32_t events = 0;
  std::int32_t screens = 0;
  std::int32_t incidents = 0;

  void add(const Chunk& chunk) {
    const bool isLast = last == nullptr || chunk.number > last->number;
    if (chunk.device.userId && (isLast || !userId)) userId = chunk.device.userId;
    if (isLast) last = &chunk;
    seconds = std::max(seconds, chunk.seconds);
    isFirst = isFirst || chunk.isFirst;
    isFatal = isFatal || chunk.isFatal;
    ++chunks;
    events += static_cast<std::int32_t>(chunk.events.size());
    for (const EventRow& event : chunk.events) {
      screens += event.kind == std::string_view("navigation");
      incidents += event.kind == std::string_view("observation");
    }
  }
};

}  // namespace

ChunkKey keyOf(const Chunk& chunk) {
  return {chunk.device.app, chunk.session, chunk.number};
}

std::vector<DeviceRow> foldDevices(const std::vector<const DeviceRow*>& reports) {
  std::map<std::pair<std::string, std::string>, DeviceRow> devices;
  for (const DeviceRow* report : reports) {
    const auto [found, isNew] = devices.try_emplace({report->app, report->device}, *report);
    if (isNew) continue;
    DeviceRow& kept = found->second;
    const auto secret = kept.secretHash ? kept.secretHash : report->secretHash;
    const auto token = report->token ? report->token : kept.token;
    // A report that was just made has the epoch, and is newer than every chunk.
    const db::Time epoch = db::Time::epoch();
    if (!(epoch < report->reported) || (epoch < kept.reported && kept.reported < report->reported)) kept = *report;
    kept.secretHash = secret;
    kept.token = token;
  }
  std::vector<DeviceRow> rows;
  for (auto& [key, device] : devices) rows.push_back(std::move(device));
  return rows;
}

db::Query reportDevices(const std::vector<DeviceRow>& devices) {
  Texts apps, ids, secrets, users, attributes, versions, systems, models, tokens;
  db::ArrayParameter<double> widths, heights;
  Times installed, reported;
  for (const DeviceRow& device : devices) {
    apps.add(device.app);
    ids.add(device.device);
    secrets.add(device.secretHash);
    users.add(device.userId);
    attributes.add(device.userAttributes);
    versions.add(device.appVersion);
    systems.add(device.systemVersion);
    models.add(device.hardwareModel);
    widths.add(device.width);
    heights.add(device.height);
    tokens.add(device.token);
    installed.add(device.installed);
    reported.add(device.reported);
  }
  return query(kReportDevices, apps, ids, secrets, users, attributes, versions, systems, models, widths, heights,
               tokens, installed, reported);
}

db::Query withDevices(std::size_t statement, const std::vector<DeviceRow>& devices) {
  Texts apps, ids;
  for (const DeviceRow& device : devices) {
    apps.add(device.app);
    ids.add(device.device);
  }
  return query(statement, apps, ids);
}

db::Query insertIds(const Chunks& chunks) {
  Texts apps, sessions, devices, fingerprints, attributes;
  Numbers numbers, events;
  for (const Chunk* chunk : chunks) {
    apps.add(chunk->device.app);
    sessions.add(chunk->session);
    numbers.add(chunk->number);
    devices.add(chunk->device.device);
    fingerprints.add(chunk->fingerprint);
    events.add(static_cast<std::int32_t>(chunk->events.size()));
    attributes.add(chunk->attributes);
  }
  return query(kInsertIds, apps, sessions, numbers, devices, fingerprints, events, attributes);
}

db::Query withKeys(std::size_t statement, const Chunks& chunks) {
  Texts apps, sessions;
  Numbers numbers;
  for (const Chunk* chunk : chunks) {
    apps.add(chunk->device.app);
    sessions.add(chunk->session);
    numbers.add(chunk->number);
  }
  return query(statement, apps, sessions, numbers);
}

db::Query insertEvents(const Chunks& chunks) {
  Texts apps, sessions, devices, users, versions, systems, kinds, names, attributes, fullNames;
  Numbers sinceLaunch, seconds;
  Times times;
  for (const Chunk* chunk : chunks) {
    for (const EventRow& event : chunk->events) {
      apps.add(chunk->device.app);
      sessions.add(chunk->session);
      devices.add(chunk->device.device);
      users.add(chunk->device.userId);
      versions.add(chunk->device.appVersion);
      systems.add(chunk->device.systemVersion);
      kinds.add(std::string(event.kind));
      names.add(event.name);
      sinceLaunch.add(event.sinceLaunch);
      times.add(event.time);
      seconds.add(event.seconds);
      attributes.add(event.attributes);
      fullNames.add(event.fullName);
    }
  }
  return query(kInsertEvents, apps, sessions, devices, users, versions, systems, kinds, names, sinceLaunch, times,
               seconds, attributes, fullNames);
}

db::Query addToSessions(const Chunks& chunks) {
  std::map<std::pair<std::string, std::string>, SessionTotals> sessions;
  for (const Chunk* chunk : chunks) sessions[{chunk->device.app, chunk->session}].add(*chunk);
  Texts apps, ids, devices, users, launchTypes, versions, systems, models, libraries, attributes;
  Times started;
  db::ArrayParameter<double> seconds;
  db::ArrayParameter<bool> first, fatal;
  Numbers highest, counts, events, screens, incidents;
  for (const auto& [key, totals] : sessions) {
    const Chunk& chunk = *totals.last;
    apps.add(key.first);
    ids.add(key.second);
    devices.add(chunk.device.device);
    users.add(totals.userId);
    started.add(chunk.started);
    seconds.add(totals.seconds);
    first.add(totals.isFirst);
    fatal.add(totals.isFatal);
    launchTypes.add(chunk.launchType);
    versions.add(chunk.device.appVersion);
    systems.add(chunk.device.systemVersion);
    models.add(chunk.device.hardwareModel);
    libraries.add(chunk.libraryVersion);
    attributes.add(chunk.sessionAttributes);
    highest.add(chunk.number);
    counts.add(totals.chunks);
    events.add(totals.events);
    screens.add(totals.screens);
    incidents.add(totals.incidents);
  }
  return query(kAddToSessions, apps, ids, devices, users, started, seconds, first, fatal, launchTypes, versions,
               systems, models, libraries, attributes, highest, counts, events, screens, incidents);
}

db::Query raiseAggregates(const Chunks& chunks) {
  using Key = std::tuple<std::string_view, std::string_view, std::string_view, std::string_view, std::string_view>;
  std::map<Key, std::int64_t> totals;
  for (const Chunk* chunk : chunks) {
    for (const AggregateRow& row : chunk->aggregates) {
      auto& total = totals[{chunk->device.app, chunk->session, row.name, row.attribute, row.value}];
      total = std::max(total, row.count);
    }
  }
  if (totals.empty()) return {kNumberOfStatements};
  Texts apps, sessions, names, attributes, values;
  db::ArrayParameter<std::int64_t> counts;
  for (const auto& [key, count] : totals) {
    apps.add(std::string(std::get<0>(key)));
    sessions.add(std::string(std::get<1>(key)));
    names.add(std::string(std::get<2>(key)));
    attributes.add(std::string(std::get<3>(key)));
    values.add(std::string(std::get<4>(key)));
    counts.add(count);
  }
  return query(kRaiseAggregates, apps, sessions, names, attributes, values, counts);
}

db::Query keepConflicts(const Chunks& chunks) {
  Texts apps, sessions, fingerprints, devices, bodies;
  Numbers numbers;
  for (const Chunk* chunk : chunks) {
    apps.add(chunk->device.app);
    sessions.add(chunk->session);
    numbers.add(chunk->number);
    fingerprints.add(chunk->fingerprint);
    devices.add(chunk->device.device);
    bodies.add(chunk->body);
  }
  return query(kKeepConflicts, apps, sessions, numbers, fingerprints, devices, bodies);
}

}  // namespace kelvo::server
