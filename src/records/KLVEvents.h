#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "records/KLVEvent.h"

namespace kelvo {

/// What an event that carries its lifetime count asks of the controller.
class KLVLifetimeCounts {
 public:
  /// How often an event of this name was stored since installation.
  virtual std::int64_t getLifetimeCountForEventWithName(const std::string& name) = 0;

 protected:
  ~KLVLifetimeCounts() = default;  // never deleted through this type
};

/// An event that the host logged.
class KLVAppEvent final : public KLVEvent {
 public:
  /// Without `attributes` the event carries neither the attribute "time" nor lifetime counters. The attributes stand
  /// at the top level and, without nulls, as custom info.
  KLVAppEvent(KLVEventType type, std::string name, const std::optional<Dictionary>& attributes,
              KLVLifetimeCounts& counts);
  [[nodiscard]] std::string_view className() const override { return "KLVAppEvent"; }

  [[nodiscard]] Dictionary eventAttributes() const { return customInfo(); }
  void setEventAttribute(Value value, std::string_view key) { setCustomInfo(std::move(value), key); }
  void setEventAttributes(Dictionary attributes) { setCustomInfo(std::move(attributes)); }
};

/// The application came to the foreground or goes to the background.
class KLVSystemEvent final : public KLVEvent {
 public:
  enum class SubType : std::uint64_t { foreground = 0, background = 1 };

  KLVSystemEvent(KLVEventType type, SubType subType);
  [[nodiscard]] std::string_view className() const override { return "KLVSystemEvent"; }

  /// "FOREGROUND", "BACKGROUND", or "undefined".
  static std::string_view stringFromSystemType(SubType subType);
  /// Kept: every text but "FOREGROUND" is a background.
  static SubType systemTypeFromString(std::string_view name);
};

/// A screen that was shown, with the time spent on it once it is left.
class KLVNavigationEvent final : public KLVEvent {
 public:
  explicit KLVNavigationEvent(const std::optional<std::string>& viewControllerId);
  KLVNavigationEvent(const std::optional<std::string>& navigationId, const std::optional<std::string>& name);
  [[nodiscard]] std::string_view className() const override { return "KLVNavigationEvent"; }
};

/// A screen that is about to appear; a signal on the bus only.
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

/// An event that is counted for life but not stored.
class KLVClientEvent final : public KLVEvent {
 public:
  KLVClientEvent() : KLVEvent(KLVEventType::client) {}
  [[nodiscard]] std::string_view className() const override { return "KLVClientEvent"; }
};

/// An event that is only counted, per session and attribute value.
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
