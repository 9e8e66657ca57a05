#include "core/JournalReplay.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "core/AttributeFlattening.h"
#include "core/HomeJournal.h"
#include "core/KLVEventSource.h"
#include "platform/HostInterface.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVSanitiser.h"

namespace kelvo {
namespace {

using Kind = KLVJournalKind;

/// The screen that a session shows while its calls are replayed.
struct Shown {
  std::shared_ptr<KLVNavigationEvent> event;  // nullptr: none, or it is on its way
  std::optional<std::string> notified;        // the screen of the last notification, as the navigation monitor has it
  std::int64_t lastTime = 0;                  // of a call in the session
};

std::int64_t secondsBetween(Date start, Date when) {
  return std::chrono::duration_cast<std::chrono::seconds>(when - start).count();
}

/// Returns the screen's event; nullptr if the host has shown this screen already.
std::shared_ptr<KLVNavigationEvent> screenOf(const KLVJournalCall& call, Shown& shown) {
  const std::string text = call.text.value_or("");
  if (call.kind == Kind::screen) {
    return shown.notified ? std::make_shared<KLVNavigationEvent>(shown.notified, text)
                          : std::make_shared<KLVNavigationEvent>(text);
  }
  const auto title = call.info ? (*call.info)["title"].asText() : std::nullopt;
  const std::string name = *sanitised(std::optional(Screen(text, title).klvName()));
  if (shown.event != nullptr && shown.notified == name) return nullptr;
  shown.notified = name;
  auto event = std::make_shared<KLVNavigationEvent>(name);
  if (title) event->setInfo(*sanitised(title), kKLVName);
  return event;
}

/// Returns the event of a call that makes one at once.
std::shared_ptr<KLVEvent> eventOf(const KLVJournalCall& call, std::int64_t time, KLVLifetimeCounts& counts) {
  const std::string name = call.text.value_or("");
  const Dictionary info = call.info.value_or(Dictionary());
  const auto flat = [&] { return flattened(info, (call.flags & kKLVJournalFlattens) != 0); };
  switch (call.kind) {
    case Kind::appEvent: return KLVAppEventSource::event(name, flat(), time, counts);
    case Kind::customError: return KLVObservationSource::event(name, info, time);
    case Kind::clientEvent: {
      auto event = std::make_shared<KLVClientEvent>();
      event->setIdentifier(name);
      return event;
    }
    case Kind::aggregateEvent: return aggregateEvent(name, flat());
    case Kind::pluginEvent: return KLVPluginEventSource::event(static_cast<KLVEventType>(call.flags), call.text, info);
    case Kind::becameActive:
    case Kind::resignsActive: {
      using SubType = KLVSystemEvent::SubType;
      const auto subType = call.kind == Kind::becameActive ? SubType::foreground : SubType::background;
      return std::make_shared<KLVSystemEvent>(KLVEventType::system, subType);
    }
    default: return nullptr;
  }
}

bool opensScreen(Kind kind) {
  return kind == Kind::screen || kind == Kind::didShow;
}

}  // namespace

JournalReplay::JournalReplay(const std::vector<KLVJournalEntry>& entries, KLVLifetimeCounts& counts, const Take& take) {
  std::map<std::string, Shown> screens;  // by the text of the session
  const auto leave = [&take](Shown& shown, std::int64_t time, const std::string& session) {
    if (shown.event == nullptr) return;
    shown.event->setInfo(std::max<std::int64_t>(time - shown.event->createdTime(), 0), kKLVDuration);
    take(std::exchange(shown.event, nullptr), session);
  };
  for (const auto& [sequence, sessionText, call] : entries) {
    const auto ticket = KLVWaitingCall::ofEntry(sequence);
    const auto session = HomeJournal::Session::from(sessionText);
    const std::int64_t time = secondsBetween(session.start, call.time);
    Shown& shown = screens[sessionText];
    shown.lastTime = std::max(shown.lastTime, time);
    if (call.kind == Kind::sessionAttributes) {
      ofSessions[session.id].push_back({false, call.info.value_or(Dictionary()), ticket});
    } else if (call.kind == Kind::deviceToken) {
      token = {call.text.value_or(""), ticket};
    } else if (opensScreen(call.kind)) {
      auto next = screenOf(call, shown);
      if (next == nullptr) continue;
      next->setCreatedTime(time);
      next->setCall(ticket);
      leave(shown, time, session.id);
      shown.event = std::move(next);
    } else if (auto event = eventOf(call, time, counts)) {
      event->setCreatedTime(time);
      event->setCall(ticket);
      if (call.kind == Kind::resignsActive) leave(shown, time, session.id);
      take(event, session.id);
    }
  }
  for (auto& [text, shown] : screens) leave(shown, shown.lastTime, HomeJournal::Session::from(text).id);
}

std::vector<BufferedAttributes> JournalReplay::takeUserAttributes(std::vector<KLVJournalEntry>& entries) {
  std::vector<BufferedAttributes> taken;
  std::erase_if(entries, [&](const KLVJournalEntry& entry) {
    const KLVJournalCall& call = entry.call;
    const bool isIdentifier = call.kind == Kind::userIdentifier;
    if (!isIdentifier && call.kind != Kind::userAttributes) return false;
    auto attributes =
        isIdentifier ? Dictionary{{"custom_user_id", call.text.value_or("")}} : call.info.value_or(Dictionary());
    taken.push_back({true, std::move(attributes), KLVWaitingCall::ofEntry(entry.sequence)});
    return true;
  });
  return taken;
}

}  // namespace kelvo
