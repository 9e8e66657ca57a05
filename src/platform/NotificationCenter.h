#pragma once

#include <any>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ThreadSafety.h"

namespace kelvo {

/// Posted with the `Date` of the report after the application became active, and before it resigns active.
inline constexpr std::string_view kApplicationDidBecomeActive = "UIApplicationDidBecomeActiveNotification";
inline constexpr std::string_view kApplicationWillResignActive = "UIApplicationWillResignActiveNotification";

/// Broadcasts named notifications. Handlers are called on the posting thread, in the order of their subscription. An
/// exception from a handler is reported as a problem, and the next handler is called. Thread-safe.
class NotificationCenter {
 public:
  using Handler = std::function<void()>;
  /// `userInfo` is empty, or has the type that the notification's name prescribes.
  using InfoHandler = std::function<void(const std::any& userInfo)>;

  /// Owns a subscription, which ends when the object is destroyed or reset. Neither waits for a handler that runs on
  /// another thread.
  class Observation {
   public:
    Observation() = default;
    explicit Observation(std::shared_ptr<void> entry) : entry_(std::move(entry)) {}
    void reset() { entry_.reset(); }

   private:
    std::shared_ptr<void> entry_;
  };

  static NotificationCenter& defaultCenter();

  [[nodiscard]] Observation observe(std::string_view name, Handler handler);
  [[nodiscard]] Observation observe(std::string_view name, InfoHandler handler);
  void post(std::string_view name, const std::any& userInfo = {});

 private:
  struct Entry {
    std::string name;
    InfoHandler handler;
  };
  Mutex mutex_;
  std::vector<std::weak_ptr<Entry>> entries_ GUARDED_BY(mutex_);
};

}  // namespace kelvo
