#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "records/KLVEvents.h"

namespace kelvo {

/// The controller methods that event sources call. Thread: the thread that calls `logEvent`.
class KLVEventSourceDelegate : public KLVLifetimeCounts {
 public:
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;

 protected:
  ~KLVEventSourceDelegate() = default;  // never deleted through this type
};

/// The base of the event sources. `logEvent` makes an event from a name and attributes and posts it on the bus. `time`
/// is the event's creation time in whole seconds since the SDK start date; nullopt means now. `call` is the host call
/// that waits until the event is stored. Thread: any; the work runs on the calling thread.
class KLVEventSource {
 public:
  /// `delegate` must outlive the source.
  explicit KLVEventSource(KLVEventSourceDelegate& delegate) : delegate_(delegate) {}

 protected:
  KLVEventSourceDelegate& delegate_;
};

/// Makes events of the application.
class KLVAppEventSource : public KLVEventSource {
 public:
  using KLVEventSource::KLVEventSource;
  [[nodiscard]] static std::shared_ptr<KLVEvent> event(const std::string& name, const std::optional<Dictionary>& info,
                                                       std::optional<std::int64_t> time, KLVLifetimeCounts& counts);
  void logEvent(const std::string& name, const std::optional<Dictionary>& info, std::optional<std::int64_t> time,
                KLVWaitingCall call = {});
};

/// Makes client events, which are for plug-ins on this device.
class KLVClientEventSource : public KLVEventSource {
 public:
  using KLVEventSource::KLVEventSource;
  /// Kept: ignores `time`.
  void logEvent(const std::string& name, const std::optional<Dictionary>& info, std::optional<std::int64_t> time,
                KLVWaitingCall call = {});
};

/// Makes events from the errors that the host reports. `name` is the error's description.
class KLVObservationSource : public KLVEventSource {
 public:
  using KLVEventSource::KLVEventSource;
  [[nodiscard]] static std::shared_ptr<KLVEvent> event(const std::string& error, const Dictionary& info,
                                                       std::optional<std::int64_t> time);
  void logEvent(const std::string& name, const std::optional<Dictionary>& info, std::optional<std::int64_t> time,
                KLVWaitingCall call = {});
};

/// Returns an event that the host has the library count.
[[nodiscard]] std::shared_ptr<KLVEvent> aggregateEvent(const std::string& name, Dictionary info);

/// Makes events of plug-ins.
class KLVPluginEventSource : public KLVEventSource {
 public:
  using KLVEventSource::KLVEventSource;
  /// Returns false, and posts nothing, if plug-ins may not make events of `type`. `PluginServices::dispatchEvent`
  /// documents the types.
  [[nodiscard]] bool logEvent(KLVEventType type, const std::optional<std::string>& name, const Dictionary& info,
                              KLVWaitingCall call = {});
  /// Returns such an event, nullptr if plug-ins may not make it. Without a name, it has that of its type.
  [[nodiscard]] static std::shared_ptr<KLVEvent> event(KLVEventType type, const std::optional<std::string>& name,
                                                       const Dictionary& info);
};

}  // namespace kelvo
