#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/ViewTree.h"

namespace kelvo {

/// Posted with a `Screen` when one is about to appear, and when it has appeared.
inline constexpr std::string_view kWillShowViewController = "UINavigationControllerWillShowViewControllerNotification";
inline constexpr std::string_view kDidShowViewController = "UINavigationControllerDidShowViewControllerNotification";
/// Posted when the host has handed over its view tree or taken it away.
inline constexpr std::string_view kViewTreeDidChange = "KLVViewTreeDidChangeNotification";

/// A screen as the host reports it. Its title is known already, or to be asked of the controller on the main queue.
struct Screen {
  /// Asks `its` class name and kind on this thread.
  explicit Screen(std::shared_ptr<ViewController> its);
  Screen(std::string itsClassName, std::optional<std::string> itsTitle);

  /// The class name without what qualifies it: HomeViewController of Shop.HomeViewController.
  [[nodiscard]] std::string klvName() const;

  std::string className;
  ViewController::Kind kind = ViewController::Kind::plain;
  std::optional<std::string> title;
  std::shared_ptr<ViewController> controller;
};

/// Holds what the host has handed over of its interface. Any thread.
class HostInterface {
 public:
  /// nullptr takes the tree away.
  static void setViewTree(std::shared_ptr<ViewTree> tree);
  /// nullptr when there is none.
  static std::shared_ptr<ViewTree> viewTree();
};

}  // namespace kelvo
