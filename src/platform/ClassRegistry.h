#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kelvo {

/// Factories by class name, for what is looked up at run time.
class ClassRegistry {
 public:
  using Factory = std::function<std::shared_ptr<void>()>;

  /// A second factory under one name replaces the first.
  static void add(std::string_view className, Factory factory);
  /// The factory's product, or nullptr when no class of that name is known. Its type is the one that all
  /// factories of such names agree on.
  static std::shared_ptr<void> make(std::string_view className);
};

}  // namespace kelvo
