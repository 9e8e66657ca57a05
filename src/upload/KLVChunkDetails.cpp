#include "upload/KLVChunkDetails.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/JSON.h"
#include "records/KLVEvent.h"
#include "records/KLVRecordKeys.h"
#include "records/KLVServerAPIHelper.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// One array of the upload: its name, the class whose key map its events use, and whether an empty array is sent.
struct Group {
  std::string_view name;
  std::string_view className;
  bool always;
};

enum GroupIndex : std::size_t { kSystem, kNavigation, kApp, kUser, kIncidents, kNotSent };
constexpr std::array<Group, kNotSent> kGroupTable{{{"system_events", "KLVSystemEvent", true},
                                                   {"navigation_events", "KLVNavigationEvent", true},
                                                   {"app_events", "KLVAppEvent", true},
                                                   {"user_events", "KLVUserEvent", false},
                                                   {"incidents", "KLVObservationEvent", false}}};

/// An event is in the body, in "chunk_details" and in its group. JSON nests at most 256 levels.
constexpr std::size_t kContainers = 3;
constexpr std::size_t kDeepestEvent = 256 - kContainers;

GroupIndex groupOf(KLVEventType type) {
  switch (type) {
    case KLVEventType::system: return kSystem;
    case KLVEventType::navigation: return kNavigation;
    case KLVEventType::userInteraction: return kUser;
    case KLVEventType::app: return kApp;
    case KLVEventType::customError:
    case KLVEventType::applicationCrash: return kIncidents;
    default: return kNotSent;
  }
}

/// Returns the upload form of a record that is rebuilt from the event. Returns nullopt if it nests too deep for a body.
std::optional<std::string> rebuilt(const KLVStoredEvent& event, std::optional<std::string_view> attributes,
                                   std::string_view className, std::string* error) {
  const Dictionary row{{std::string(kKLVId), event.id},
                       {std::string(kKLVTime), event.time},
                       {std::string(kKLVType), event.type},
                       {std::string(kKLVAdditionalInfo), attributes}};
  Value form = objectFromJsonDict<KLVEvent>(row)->jsonDictModifiedforInstanceWithName(className);
  for (std::size_t level = 0; level < kContainers; ++level) {
    Array container;
    container.append(std::move(form));
    form = std::move(container);
  }
  auto text = jsonText(form, error);
  if (text) text = text->substr(kContainers, text->size() - 2 * kContainers);
  return text;
}

}  // namespace

void KLVChunkDetails::addEvent(const KLVStoredEvent& event) {
  static_assert(kGroups == kGroupTable.size());
  const KLVEventType type = typeFromString(event.type);
  const GroupIndex group = groupOf(type);
  if (group == kNotSent) return;
  form_.clear();
  if (groups_[group].count++ > 0) form_ += ',';
  if (!copyForm(event, stringFromType(type), group)) rebuildForm(event, group);
  groups_[group].text.append(form_);
}

bool KLVChunkDetails::copyForm(const KLVStoredEvent& event, std::string_view type, std::size_t group) {
  static const auto keyMaps = [] {
    std::array<KLVKeyMap, kGroups> maps{};
    std::transform(kGroupTable.begin(), kGroupTable.end(), maps.begin(),
                   [](const Group& each) { return KLVKeyMap::ofClass(each.className); });
    return maps;
  }();
  if (!attributes_.read(event.attributes.value_or("{}"), kDeepestEvent)) return false;
  members_.clear();
  for (const auto& [key, value] : attributes_.members()) set(keyMaps[group].convert(key), value);
  // A record sets these last, so that no attribute replaces them.
  id_.clear();
  appendQuoted(id_, event.id);
  const fmt::format_int time(event.time);
  const std::string quotedType = '"' + std::string(type) + '"';
  set(keyMaps[group].convert(kKLVId), id_);
  set(keyMaps[group].convert(kKLVTime), {time.data(), time.size()});
  set(keyMaps[group].convert(kKLVType), quotedType);
  char separator = '{';
  for (const auto& [key, value] : members_) {
    form_.append({separator, '"'}).append(key).append("\":").append(value);
    separator = ',';
  }
  form_ += '}';
  return true;
}

void KLVChunkDetails::set(std::optional<std::string_view> key, std::string_view value) {
  if (!key) return;
  const auto same = std::find_if(members_.begin(), members_.end(), [&](const auto& each) { return each.key == *key; });
  if (same == members_.end()) {
    members_.push_back({*key, value});
  } else {
    same->value = value;
  }
}

void KLVChunkDetails::rebuildForm(const KLVStoredEvent& event, std::size_t group) {
  const std::string_view className = kGroupTable[group].className;
  std::string error;
  auto form = rebuilt(event, event.attributes, className, &error);
  if (!form) {
    KLV_ERROR("JSON Error: {}", error);
    form = rebuilt(event, std::nullopt, className, &error);
  }
  form_ += form.value();
}

std::size_t KLVChunkDetails::events() const noexcept {
  std::size_t count = 0;
  for (const Events& group : groups_) count += group.count;
  return count;
}

std::optional<SlicedText> KLVChunkDetails::takeBody(Dictionary sections, const Attributes& attributes) {
  sections.set(kKLVBodyChunkDetails, Dictionary{{std::string(kKLVBodyUserAttributes), attributes.user},
                                                {"session_attributes", attributes.session},
                                                {"chunk_attributes", attributes.chunk},
                                                {"agg_events", attributes.aggregateEvents}});
  std::string error;
  auto head = jsonText(sections, &error);
  if (!head) {
    KLV_ERROR("Error geting json object from data: {}", error);
    return std::nullopt;
  }
  constexpr std::string_view kEnd = "}}";  // of "chunk_details" and of the body: the events go before it
  head->resize(head->size() - kEnd.size());
  SlicedText body(*head);
  for (std::size_t group = 0; group < kGroups; ++group) {
    if (!kGroupTable[group].always && groups_[group].count == 0) continue;
    body.append(fmt::format(",\"{}\":[", kGroupTable[group].name));
    body.splice(std::move(groups_[group].text));
    body.append("]");
  }
  body.append(kEnd);
  return body;
}

}  // namespace kelvo
