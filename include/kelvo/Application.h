#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "kelvo/Export.h"
#include "kelvo/Nilable.h"
#include "kelvo/Value.h"
#include "kelvo/ViewTree.h"

namespace kelvo {

enum class LogLevel { debug, info, warn, error };

/// What a host tells the library about itself. Every operation is optional, may be called from any thread at any
/// time, before or after the start, returns at once and never throws.
class KELVO_EXPORT Application {
 public:
  /// The application came to the foreground: its window became active.
  static void didBecomeActive() noexcept;
  /// The application is about to leave the foreground. What was logged before is in the chunk of events that is cut
  /// and sent now.
  static void willResignActive() noexcept;

  /// The token for push notifications, as text or as bytes (sent as upper-case hexadecimal). Before the start it is
  /// kept and used then.
  static void logDeviceToken(OptionalText token) noexcept;
  static void logDeviceToken(Data token) noexcept;

  /// Size of the main screen in points. Without it, 0 x 0 is reported. Counts for what is made after the call, so
  /// report it before the start.
  static void setScreenSize(float width, float height) noexcept;

  /// Hands over the host's main loop, once: `post` runs a task later on the loop's thread and returns at once,
  /// `isCurrent` says whether the calling thread is that one. Both are called from any thread and must stay valid for
  /// the life of the process. Until then the library runs a loop of its own in a thread.
  static void setMainLoop(std::function<void(std::function<void()> task)> post,
                          std::function<bool()> isCurrent) noexcept;

  /// Takes the library's log lines, one a call without a line feed, in place of standard error; an empty function
  /// gives them back. Called on the log thread. A sink that was replaced may still be called for lines already taken.
  static void setLogSink(std::function<void(LogLevel level, std::string_view line)> sink) noexcept;

  /// The host's windows and views, so that actions of the service can point at one; nullptr takes them away. Handed
  /// over for the first time, or at the start, it is asked once for the screen that shows then.
  static void setViewTree(std::shared_ptr<ViewTree> tree) noexcept;

  /// `screen` is about to appear, and has appeared. The time on a screen is recorded when the next one has appeared,
  /// or when the application leaves the foreground. A screen of the same class as the one before is the same screen,
  /// and a navigation is none. The title is asked on the main queue later, and not waited for here; nullptr gives one
  /// log line.
  static void willShow(std::shared_ptr<ViewController> screen) noexcept;
  static void didShow(std::shared_ptr<ViewController> screen) noexcept;
  /// The same for a host without view controllers. Without a title the class names the screen; no class or an empty
  /// one gives one log line.
  static void willShow(OptionalText className, OptionalText title = {}) noexcept;
  static void didShow(OptionalText className, OptionalText title = {}) noexcept;

  /// The host's interface is drawn by a cross-platform framework.
  static void markAsReactNative() noexcept;
  static void markAsCordova() noexcept;
};

}  // namespace kelvo
