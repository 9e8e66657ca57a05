#pragma once

#include <any>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo {

/// Posted when the application became active, and when it is about to resign active.
inline constexpr std::string_view kApplicationDidBecomeActive = "UIApplicationDidBecomeActiveNotification";
inline constexpr std::string_view kApplicationWillResignActive = "UIApplicationWillResignActiveNotification";

/// Broadcasts named notifications to whoever observes them, on the posting thread, in order of subscription.
class NotificationCenter {
 public:
  using Handler = std::function<void()>;
  /// For those that want what the notification carries: empty, or of the type that all posts of its name agree on.
  using InfoHandler = std::function<void(const std::any& userInfo)>;

  /// The subscription: ends when it dies or is reset. A handler that already runs on another thread is not
  /// waited for.
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
  std::mutex mutex_;
  std::vector<std::weak_ptr<Entry>> entries_;
};

}  // namespace kelvo
