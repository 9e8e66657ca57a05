#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/ViewTree.h"
#include "platform/Clock.h"

namespace kelvo {

/// Posted with a `Screen` before the screen appears, and after it has appeared.
inline constexpr std::string_view kWillShowViewController = "UINavigationControllerWillShowViewControllerNotification";
inline constexpr std::string_view kDidShowViewController = "UINavigationControllerDidShowViewControllerNotification";
/// Posted after the host has set or removed its view tree.
inline constexpr std::string_view kViewTreeDidChange = "KLVViewTreeDidChangeNotification";

/// A screen that the host reports, by its name or by its view controller. The title of a view controller must be read
/// on the main queue.
struct Screen {
  /// Reads the class name and the kind of the view controller on the calling thread.
  explicit Screen(std::shared_ptr<ViewController> its);
  Screen(std::string itsClassName, std::optional<std::string> itsTitle);

  /// Returns the class name without its qualifier: "HomeViewController" for "Shop.HomeViewController".
  [[nodiscard]] std::string klvName() const;

  std::string className;
  ViewController::Kind kind = ViewController::Kind::plain;
  std::optional<std::string> title;
  std::shared_ptr<ViewController> controller;  ///< nullptr if the host reported a name only
  Date reportedAt = Clock::now();
  std::shared_ptr<const void> call;  ///< the host call of the report, if it is recorded: a `KLVWaitingCall`
};

/// Holds the host's view tree. Thread-safe.
class HostInterface {
 public:
  /// Replaces the tree. nullptr removes it.
  static void setViewTree(std::shared_ptr<ViewTree> tree);
  /// Returns the tree, nullptr if there is none.
  static std::shared_ptr<ViewTree> viewTree();
};

}  // namespace kelvo
