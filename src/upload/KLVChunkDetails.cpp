#include <array>
#include <string_view>
#include <utility>

#include "upload/KLVChunkManager.h"

namespace kelvo {
namespace {

/// The list of the upload that a kind of event goes to, and the class whose names it takes there.
struct EventGroup {
  std::string_view list;
  std::string_view className;
};

constexpr EventGroup kSystemEvents{"system_events", "KLVSystemEvent"};
constexpr EventGroup kNavigationEvents{"navigation_events", "KLVNavigationEvent"};
constexpr EventGroup kUserEvents{"user_events", "KLVUserEvent"};
constexpr EventGroup kAppEvents{"app_events", "KLVAppEvent"};
constexpr EventGroup kIncidents{"incidents", "KLVObservationEvent"};

const EventGroup* groupOf(KLVEventType type) {
  switch (type) {
    case KLVEventType::system: return &kSystemEvents;
    case KLVEventType::navigation: return &kNavigationEvents;
    case KLVEventType::userInteraction: return &kUserEvents;
    case KLVEventType::app: return &kAppEvents;
    case KLVEventType::customError:
    case KLVEventType::applicationCrash: return &kIncidents;
    default: return nullptr;
  }
}

}  // namespace

Dictionary constructChunkDetailsWithEvents(std::vector<Dictionary> rows, const Dictionary& userAttributes,
                                           const Dictionary& sessionAttributes, const Dictionary& chunkAttributes,
                                           const Array& aggregateEvents) {
  struct List {
    const EventGroup* group;
    bool always;
    Array events;
  };
  std::array<List, 5> lists{{{&kSystemEvents, true, {}},
                             {&kNavigationEvents, true, {}},
                             {&kAppEvents, true, {}},
                             {&kUserEvents, false, {}},
                             {&kIncidents, false, {}}}};
  for (Dictionary& row : rows) {
    const auto event = objectFromJsonDict<KLVEvent>(std::exchange(row, {}));
    const EventGroup* group = groupOf(event->eventType());
    if (group == nullptr) continue;
    for (List& list : lists) {
      if (list.group == group) list.events.append(event->jsonDictModifiedforInstanceWithName(group->className));
    }
  }

  Dictionary details{{"user_attributes", userAttributes},
                     {"session_attributes", sessionAttributes},
                     {"chunk_attributes", chunkAttributes},
                     {"agg_events", aggregateEvents}};
  for (List& list : lists) {
    if (list.always || !list.events.empty()) details.set(list.group->list, std::move(list.events));
  }
  return details;
}

}  // namespace kelvo
