#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "records/KLVEventType.h"
#include "records/KLVInfo.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {

/// A recorded occurrence: a record with a type and a creation time in whole seconds since the SDK started.
///
/// Its producer makes it and hands it to the bus. The bus may change the type while it classifies the event. Nothing
/// changes an event after its delivery.
class KLVEvent : public KLVInfo {
 public:
  /// An event created now. Its identifier is the type's name until a subclass sets another.
  explicit KLVEvent(KLVEventType type);
  /// For events rebuilt from storage: `restore` sets their type and time.
  explicit KLVEvent(std::string identifier) : KLVInfo(std::move(identifier)) {}

  [[nodiscard]] std::string_view className() const override { return "KLVEvent"; }

  [[nodiscard]] KLVEventType eventType() const noexcept { return type_.load(); }
  void setEventType(KLVEventType type) noexcept { type_.store(type); }
  [[nodiscard]] std::int64_t createdTime() const noexcept { return time_.load(); }
  void setCreatedTime(std::int64_t time) noexcept { time_.store(time); }
  /// The host call that caused the event: it waits while the event, or its write, does. Set before the event is shared.
  [[nodiscard]] const KLVWaitingCall& call() const noexcept { return call_; }
  void setCall(KLVWaitingCall call) noexcept { call_ = std::move(call); }

  /// Returns the record's form plus "time" and "type" (the type's name).
  [[nodiscard]] Dictionary jsonDict() const override;
  [[nodiscard]] Dictionary jsonDictModifiedforInstanceWithName(std::string_view name) const override;

 protected:
  void restore(const Dictionary& jsonDict) override;

 private:
  std::atomic<KLVEventType> type_{KLVEventType::system};
  std::atomic<std::int64_t> time_{0};
  KLVWaitingCall call_;
};

/// Receives events from the bus.
class KLVEventListener {
 public:
  virtual ~KLVEventListener() = default;
  /// Called on the bus's serial queue. Must not block.
  virtual void onEvent(const std::shared_ptr<KLVEvent>& event) = 0;
};

}  // namespace kelvo
