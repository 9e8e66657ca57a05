#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "records/KLVEvent.h"

namespace kelvo {

/// The controller method that an event calls to carry its lifetime count. Thread: any.
class KLVLifetimeCounts {
 public:
  /// Returns how often an event of this name was stored since the installation.
  virtual std::int64_t getLifetimeCountForEventWithName(const std::string& name) = 0;

 protected:
  ~KLVLifetimeCounts() = default;  // never deleted through this type
};

/// An event that the host logged.
class KLVAppEvent final : public KLVEvent {
 public:
  /// Stores `attributes` twice: as attributes, and without nulls as custom attributes. Adds the lifetime counters to
  /// both, and the attribute "time" to the first. Without `attributes` the event has none of these.
  KLVAppEvent(KLVEventType type, std::string name, const std::optional<Dictionary>& attributes,
              KLVLifetimeCounts& counts);
  [[nodiscard]] std::string_view className() const override { return "KLVAppEvent"; }

  [[nodiscard]] Dictionary eventAttributes() const { return customInfo(); }
  void setEventAttribute(Value value, std::string_view key) { setCustomInfo(std::move(value), key); }
  void setEventAttributes(Dictionary attributes) { setCustomInfo(std::move(attributes)); }
};

/// The application comes to the foreground or goes to the background.
class KLVSystemEvent final : public KLVEvent {
 public:
  enum class SubType : std::uint64_t { foreground = 0, background = 1 };

  KLVSystemEvent(KLVEventType type, SubType subType);
  [[nodiscard]] std::string_view className() const override { return "KLVSystemEvent"; }

  /// Returns "FOREGROUND" or "BACKGROUND", and "undefined" for any other number.
  static std::string_view stringFromSystemType(SubType subType);
  /// Kept: returns `background` for every text but "FOREGROUND".
  static SubType systemTypeFromString(std::string_view name);
};

/// A screen that was shown. It carries the seconds that the user spent on it, once they leave it.
class KLVNavigationEvent final : public KLVEvent {
 public:
  explicit KLVNavigationEvent(const std::optional<std::string>& viewControllerId);
  KLVNavigationEvent(const std::optional<std::string>& navigationId, const std::optional<std::string>& name);
  [[nodiscard]] std::string_view className() const override { return "KLVNavigationEvent"; }
};

/// A screen that is about to appear. It travels on the bus and is never stored.
class KLVCENavEvent final : public KLVEvent {
 public:
  explicit KLVCENavEvent(const std::optional<std::string>& viewControllerId);
  KLVCENavEvent(const std::optional<std::string>& navigationId, const std::optional<std::string>& name);
  [[nodiscard]] std::string_view className() const override { return "KLVCENavEvent"; }
  [[nodiscard]] bool isStorable() const override { return false; }
};

/// An error that the host reports.
class KLVObservationEvent final : public KLVEvent {
 public:
  using KLVEvent::KLVEvent;
  [[nodiscard]] std::string_view className() const override { return "KLVObservationEvent"; }
};

/// An event for plug-ins on this device. Only its lifetime count is stored.
class KLVClientEvent final : public KLVEvent {
 public:
  KLVClientEvent() : KLVEvent(KLVEventType::client) {}
  [[nodiscard]] std::string_view className() const override { return "KLVClientEvent"; }
};

/// An event that the library only counts, per session and attribute value.
class KLVAggregateEvent final : public KLVEvent {
 public:
  KLVAggregateEvent() : KLVEvent(KLVEventType::aggregate) {}
  [[nodiscard]] std::string_view className() const override { return "KLVAggregateEvent"; }
};

/// A signal that travels on the bus and is never stored.
template <KLVEventType kType>
class KLVSignalEvent final : public KLVEvent {
 public:
  KLVSignalEvent() : KLVEvent(kType) {}
  [[nodiscard]] bool isStorable() const override { return false; }
};
using KLVSessionEvent = KLVSignalEvent<KLVEventType::session>;
using KLVChunkEvent = KLVSignalEvent<KLVEventType::chunk>;
using KLVSurveyEvent = KLVSignalEvent<KLVEventType::survey>;
using KLVInlineEvent = KLVSignalEvent<KLVEventType::inlineView>;
using KLVInAppEvent = KLVSignalEvent<KLVEventType::inApp>;
using KLVNudgeEvent = KLVSignalEvent<KLVEventType::nudge>;

}  // namespace kelvo
