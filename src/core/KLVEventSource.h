#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "records/KLVEvents.h"

namespace kelvo {

/// What an event source asks of the controller.
class KLVEventSourceDelegate : public KLVLifetimeCounts {
 public:
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;

 protected:
  ~KLVEventSourceDelegate() = default;  // never deleted through this type
};

/// Makes an event of a logged name and its attributes and posts it on the bus, on the calling thread.
/// `time`, where given, is the event's creation time in whole seconds since the SDK start date.
class KLVEventSource {
 public:
  /// `delegate` must outlive the source.
  explicit KLVEventSource(KLVEventSourceDelegate& delegate) : delegate_(delegate) {}

 protected:
  KLVEventSourceDelegate& delegate_;
};

class KLVAppEventSource : public KLVEventSource {
 public:
  using KLVEventSource::KLVEventSource;
  void logEvent(const std::string& name, const std::optional<Dictionary>& info, std::optional<std::int64_t> time);
};

class KLVClientEventSource : public KLVEventSource {
 public:
  using KLVEventSource::KLVEventSource;
  void logEvent(const std::string& name, const std::optional<Dictionary>& info, std::optional<std::int64_t> time);
};

/// Errors that the host reports.
class KLVObservationSource : public KLVEventSource {
 public:
  using KLVEventSource::KLVEventSource;
  void logEvent(const std::string& name, const std::optional<Dictionary>& info, std::optional<std::int64_t> time);
};

}  // namespace kelvo
