#include "upload/KLVChunkDetails.h"

#include <string_view>
#include <utility>

#include "records/KLVEvent.h"
#include "records/KLVRecordKeys.h"

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

}  // namespace

void KLVChunkDetails::addEvents(std::vector<Dictionary> rows) {
  static_assert(kGroups == kGroupTable.size());
  for (Dictionary& row : rows) {
    const auto event = objectFromJsonDict<KLVEvent>(std::exchange(row, {}));
    const GroupIndex group = groupOf(event->eventType());
    if (group == kNotSent) continue;
    groups_[group].append(event->jsonDictModifiedforInstanceWithName(kGroupTable[group].className));
  }
}

std::size_t KLVChunkDetails::events() const noexcept {
  std::size_t count = 0;
  for (const Array& group : groups_) count += group.size();
  return count;
}

Dictionary KLVChunkDetails::constructChunkDetails(const Dictionary& userAttributes, const Dictionary& sessionAttributes,
                                                  const Dictionary& chunkAttributes,
                                                  const Array& aggregateEvents) const {
  Dictionary details{{std::string(kKLVBodyUserAttributes), userAttributes},
                     {"session_attributes", sessionAttributes},
                     {"chunk_attributes", chunkAttributes},
                     {"agg_events", aggregateEvents}};
  for (std::size_t group = 0; group < kGroups; ++group) {
    if (kGroupTable[group].always || !groups_[group].empty()) details.set(kGroupTable[group].name, groups_[group]);
  }
  return details;
}

}  // namespace kelvo
