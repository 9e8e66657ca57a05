#include "kelvo-server/store/Rows.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <tuple>
#include <utility>

#include "kelvo-service/ChunkValidation.h"
#include "kelvo-service/EventKinds.h"
#include "platform/JSON.h"

namespace kelvo::server {
namespace {

constexpr const char* kUserId = "custom_user_id";  // among the user attributes
constexpr std::int64_t kMillisecondsPerSecond = 1000;

Dictionary part(const Dictionary& of, const char* name) {
  return of[name].asDictionary().value_or(Dictionary());
}

std::int32_t clampedInteger(double number) {
  constexpr double kMost = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::clamp(std::floor(number), -kMost, kMost));
}

double finite(double number) {
  return std::isfinite(number) ? number : 0;
}

std::optional<std::string> textIfAny(const Value& value) {
  const auto* text = value.get<std::string>();
  return text == nullptr || text->empty() ? std::nullopt : std::optional(*text);
}

/// `body` is a chunk or a user-info body, `attributes` its user attributes.
DeviceRow deviceOf(const std::string& app, const Dictionary& body, const Dictionary& attributes) {
  const Dictionary device = part(body, "device_info");
  const Dictionary application = part(body, "app_info");
  const Dictionary dimensions = part(device, "dimensions");
  DeviceRow row;
  row.app = app;
  row.device = description(device["id"]);
  row.userId = textIfAny(attributes[kUserId]);
  row.userAttributes = describingJSONText(attributes);
  row.appVersion = description(application["app_version"]);
  row.systemVersion = description(device["os_version"]);
  row.hardwareModel = description(device["hardware_model"]);
  row.width = finite(dimensions["width"].asDouble());
  row.height = finite(dimensions["height"].asDouble());
  row.token = textIfAny(device["device_registration_token"]);
  row.installed = db::Time::fromMilliseconds(application["installation_time"].asInt64());
  return row;
}

/// Moves a name that is too long into `fullName`. The beginning and a hash take its place.
void shortenName(EventRow& row) {
  if (row.name.size() <= kLongestName) return;
  row.fullName = std::move(row.name);
  const std::string hash = "..." + sha256(*row.fullName);
  std::size_t end = kLongestName - hash.size();
  while ((static_cast<unsigned char>((*row.fullName)[end]) & 0xC0U) == 0x80U) --end;  // between two characters
  row.name = row.fullName->substr(0, end) + hash;
}

Dictionary allAttributesOf(const Dictionary& event, const service::EventKind& kind) {
  Dictionary attributes = service::attributesOf(event, kind);
  if (const Value* type = event.find("incident_type")) attributes.set("incident_type", *type);
  return attributes;
}

std::vector<EventRow> eventsOf(const Dictionary& details, std::int64_t launch) {
  std::vector<EventRow> rows;
  for (const service::EventKind& kind : service::kEventKinds) {
    for (const Value& element : details[kind.list].asArray().value_or(Array())) {
      const auto& event = *element.get<Dictionary>();
      EventRow row;
      row.kind = kind.kind;
      row.name = description(event[kind.name]);
      shortenName(row);
      row.sinceLaunch = clampedInteger(service::timeOf(event, kind));
      row.time = db::Time::fromMilliseconds(launch + row.sinceLaunch * kMillisecondsPerSecond);
      if (const Value* duration = event.find("duration");
          duration != nullptr && kind.list == std::string_view("navigation_events")) {
        row.seconds = clampedInteger(finite(duration->asDouble()));
      }
      row.attributes = describingJSONText(allAttributesOf(event, kind));
      rows.push_back(std::move(row));
    }
  }
  return rows;
}

/// Returns the totals of a chunk. Of several totals of one value, the largest counts.
std::vector<AggregateRow> aggregatesOf(const Dictionary& details) {
  std::map<std::tuple<std::string, std::string, std::string>, std::int64_t> totals;
  const auto add = [&](const std::string& name, const std::string& attribute, const std::string& value,
                       std::int64_t count) {
    auto& total = totals[{name, attribute, value}];
    total = std::max(total, count);
  };
  for (const Value& element : details["agg_events"].asArray().value_or(Array())) {
    const auto& event = *element.get<Dictionary>();
    const std::string name = description(event["name"]);
    add(name, "", "", event["count"].asInt64());
    for (const auto& [attribute, values] : part(event, "attributes")) {
      for (const Value& pair : values.asArray().value_or(Array())) {
        const Array& valueAndCount = *pair.get<Array>();
        add(name, attribute, description(valueAndCount[0]), valueAndCount[1].asInt64());
      }
    }
  }
  std::vector<AggregateRow> rows;
  for (const auto& [key, count] : totals) rows.push_back({std::get<0>(key), std::get<1>(key), std::get<2>(key), count});
  return rows;
}

Chunk chunkOf(const std::string& app, const Dictionary& body) {
  const Dictionary session = part(body, "session_info");
  const Dictionary details = part(body, "chunk_details");
  const std::int64_t launch = session["launch_time"].asInt64();
  Chunk chunk;
  chunk.session = description(session["id"]);
  chunk.number = static_cast<std::int32_t>(part(body, "chunk_meta")["number"].asInt64());
  chunk.fingerprint = service::fingerprintOfEvents(details);
  chunk.attributes = describingJSONText(part(details, "chunk_attributes"));
  chunk.device = deviceOf(app, body, part(details, "user_attributes"));
  chunk.started = db::Time::fromMilliseconds(launch);
  chunk.isFirst = session["is_first_session"].asBool();
  chunk.isFatal = session["is_fatal"].asBool();
  chunk.launchType = description(session["launch_type"]);
  chunk.libraryVersion = description(part(body, "sdk_info")["sdk_version"]);
  chunk.sessionAttributes = describingJSONText(part(details, "session_attributes"));
  chunk.events = eventsOf(details, launch);
  chunk.aggregates = aggregatesOf(details);

  const double reported = finite(std::max(session["duration"].asDouble(), session["total_duration"].asDouble()));
  double last = chunk.events.empty() ? reported : 0;
  for (const EventRow& event : chunk.events)
    last = std::max<double>(last, event.sinceLaunch + event.seconds.value_or(0));
  chunk.seconds = std::clamp(std::max(reported, last), 0.0, 1e9);
  // Not the time of the sending: a chunk that is sent late carries the records of its cut.
  chunk.device.reported =
      db::Time::fromMilliseconds(launch + std::int64_t{clampedInteger(last)} * kMillisecondsPerSecond);
  return chunk;
}

std::optional<std::string> faultOfIds(const Chunk& chunk) {
  const DeviceRow& device = chunk.device;
  std::size_t bytes = device.app.size();
  const std::string user = device.userId.value_or("");
  for (const std::string* id : {&chunk.session, &device.device, &user, &device.appVersion, &device.systemVersion}) {
    if (id->size() > kLongestId) return "an id or a version is longer than " + std::to_string(kLongestId) + " bytes";
    bytes += id->size();
  }
  if (bytes * chunk.events.size() > kMostIdBytes) return "there are too many events with long ids";
  return std::nullopt;
}

}  // namespace

std::string withoutZeros(std::string json) {
  constexpr std::string_view kZero = "u0000";
  if (json.find(kZero) == std::string::npos) return json;
  for (std::size_t at = json.find('\\'); at != std::string::npos && at + 1 < json.size();
       at = json.find('\\', at + 2)) {
    if (json.compare(at + 1, kZero.size(), kZero) == 0) json.replace(at + 1, kZero.size(), "ufffd");
  }
  return json;
}

DecodedChunk decodeChunk(const std::string& app, std::string body, std::string_view secret) {
  std::string clean = withoutZeros(body);
  std::string fault;
  const auto value = parseJSON(clean, &fault, kMostValues);
  if (!value) return {{}, "the body is not JSON: " + fault, std::move(body)};
  if (auto found = service::faultOfChunk(*value)) return {{}, std::move(*found), std::move(body)};
  const auto& members = *value->get<Dictionary>();
  if (part(members, "chunk_meta")["number"].asInt64() > std::numeric_limits<std::int32_t>::max()) {
    return {{}, "chunk_meta.number is too large", std::move(body)};
  }
  Chunk chunk = chunkOf(app, members);
  if (auto found = faultOfIds(chunk)) return {{}, std::move(*found), std::move(body)};
  if (!secret.empty()) chunk.device.secretHash = sha256(secret);
  chunk.body = std::move(clean);
  return {std::move(chunk)};
}

DeviceRow decodeUserInfo(const std::string& app, std::string body, std::string_view secret) {
  const auto members = parseJSON(withoutZeros(std::move(body))).value_or(Value()).asDictionary().value_or(Dictionary());
  DeviceRow row = deviceOf(app, members, part(members, "user_attributes"));
  if (!secret.empty()) row.secretHash = sha256(secret);
  return row;
}

std::string sha256(std::string_view bytes) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(bytes.data(), bytes.size(), hash, &size, EVP_sha256(), nullptr);
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < size; ++i) text += {kDigits[hash[i] >> 4U], kDigits[hash[i] & 0xFU]};
  return text;
}

}  // namespace kelvo::server
