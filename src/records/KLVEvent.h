#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "records/KLVEventType.h"
#include "records/KLVInfo.h"

namespace kelvo {

/// Something that happened: a record with a type and a creation time in whole seconds since the SDK started.
///
/// Made by its producer, handed to the bus, and not changed once delivered, its type apart, which the bus may
/// change while it classifies.
class KLVEvent : public KLVInfo {
 public:
  /// The identifier is the type's name until a subclass sets its own; the time is now.
  explicit KLVEvent(KLVEventType type);
  /// For events rebuilt from storage, which take type and time from there.
  explicit KLVEvent(std::string identifier) : KLVInfo(std::move(identifier)) {}

  [[nodiscard]] std::string_view className() const override { return "KLVEvent"; }

  [[nodiscard]] KLVEventType eventType() const noexcept { return type_.load(); }
  void setEventType(KLVEventType type) noexcept { type_.store(type); }
  [[nodiscard]] std::int64_t createdTime() const noexcept { return time_.load(); }
  void setCreatedTime(std::int64_t time) noexcept { time_.store(time); }

  /// The record's form plus "time" and "type" (its name).
  [[nodiscard]] Dictionary jsonDict() const override;
  [[nodiscard]] Dictionary jsonDictModifiedforInstanceWithName(std::string_view name) const override;

 protected:
  void restore(const Dictionary& jsonDict) override;

 private:
  std::atomic<KLVEventType> type_{KLVEventType::system};
  std::atomic<std::int64_t> time_{0};
};

/// Whoever wants events from the bus.
class KLVEventListener {
 public:
  virtual ~KLVEventListener() = default;
  /// Called on the bus's serial queue: must not block it.
  virtual void onEvent(const std::shared_ptr<KLVEvent>& event) = 0;
};

}  // namespace kelvo
