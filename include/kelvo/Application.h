#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

#include "kelvo/Export.h"
#include "kelvo/Log.h"
#include "kelvo/Nilable.h"
#include "kelvo/Value.h"
#include "kelvo/ViewTree.h"

namespace kelvo {

/// Reports of the host about itself. All of them are optional. Every function is thread-safe, may be called at any
/// time, returns at once and never throws. In a forked child it does nothing.
class KELVO_EXPORT Application {
 public:
  /// Reports that the application came to the foreground: its window became active. A report before the start is
  /// kept, up to 1,000 of them.
  static void didBecomeActive() noexcept;
  /// Reports that the application is about to leave the foreground. The library then cuts a chunk, which contains all
  /// events of earlier calls, and sends it. A report before the start is kept.
  static void willResignActive() noexcept;

  /// Sets the device's token for push notifications, as text or as bytes, which are sent in upper-case hexadecimal. The
  /// latest token counts. A token from before the start is kept in memory. nil or an empty token costs one WARN line.
  static void logDeviceToken(OptionalText token) noexcept;
  static void logDeviceToken(Data token) noexcept;

  /// Sets the size of the main screen in points; 0 x 0 is reported without it. A size that is negative or not finite is
  /// ignored with one WARN line. Call it before the start: records that exist already keep the former size.
  static void setScreenSize(float width, float height) noexcept;

  /// Makes the host's main loop the library's main queue. Before, and after a call with two empty functions, a thread
  /// of the library runs the main queue. `post` must run `task` later, on the loop's thread, and return at once.
  /// `isCurrent` returns whether the calling thread is the loop's thread. The library calls both on any thread, until
  /// the process is gone. An exception from either is logged.
  static void setMainLoop(std::function<void(std::function<void()> task)> post,
                          std::function<bool()> isCurrent) noexcept;

  /// Sends the library's log lines to `sink` in place of standard error. An empty function restores standard error. The
  /// log thread calls `sink` once per line, without the line feed, and ignores its exceptions. A replaced sink may
  /// still be called for a line that is already being written.
  static void setLogSink(LogSink sink) noexcept;
  /// Writes a line of an adapter to the library's log, under the same rules as the library's own. A line of the level
  /// `off` is not written.
  static void writeLogLine(LogLevel level, std::string_view line) noexcept;

  /// Hands over the host's windows and views, so that actions of the service can point at a view; nullptr removes them.
  /// The first tree is also asked for the screen that shows at that time, or at the start if that comes later.
  static void setViewTree(std::shared_ptr<ViewTree> tree) noexcept;
  /// Writes the key window's views as DEBUG lines, for the actions of the service: first the tree of the views that a
  /// path can name, indented by "-", then the path of each ("Path KLV:UITableView:0:UITableViewCell:3"). Runs on the
  /// main queue. Does nothing while DEBUG lines are filtered. Like every search by path, it sets the tags of cells.
  static void printViewTree() noexcept;

  /// Report that `screen` is about to appear, or has appeared. The library records a screen, with the time spent on it
  /// in whole seconds, when the next screen has appeared or the application leaves the foreground. A screen of the same
  /// class as the current one counts as the same screen. A navigation counts as no screen. The library reads the title
  /// on the main queue later, without blocking the caller. nullptr costs one WARN line. A report before the start is
  /// kept.
  static void willShow(std::shared_ptr<ViewController> screen) noexcept;
  static void didShow(std::shared_ptr<ViewController> screen) noexcept;
  static void willShow(std::nullptr_t screen) noexcept;
  static void didShow(std::nullptr_t screen) noexcept;
  /// The same for a host without view controllers. Without a title, the class names the screen. A nil or empty class
  /// costs one WARN line.
  static void willShow(OptionalText className, OptionalText title = {}) noexcept;
  static void didShow(OptionalText className, OptionalText title = {}) noexcept;
  /// Reports that the screen `name` is about to appear and has appeared: `willShow` and `didShow` for a host without
  /// view controllers. A screen of the same name as the current one counts as the same screen.
  static void show(OptionalText name, OptionalText title = {}) noexcept;

  /// Reports that a cross-platform framework draws the host's interface. Searches for views then use `View::nativeID`
  /// in place of the tag.
  static void markAsReactNative() noexcept;
  /// Reports that the interface is a web page. The library only stores this.
  static void markAsCordova() noexcept;
};

}  // namespace kelvo
