#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Plugin.h"
#include "kelvo/Value.h"

namespace kelvo {

/// Makes the plug-ins that the bundle's "Kelvo" dictionary switches on, and keeps them for the life of the process.
///
/// A class is looked up by its exact name: among those that are linked in and, when there is none, in the shared object
/// `libkelvo-<Name>.so` of the bundle, nowhere else. The library may be loaded, and start, before the initializers of
/// the application have run; so a class that is registered only after it was looked for is made then.
class KLVPluginLoader {
 public:
  using Factory = std::shared_ptr<Plugin> (*)();

  /// The first class under a name stays.
  static void registerClass(std::string_view name, Factory make);

  KLVPluginLoader();
  /// Each entry of `meta` but "Core" is a name, with true to switch it on. A plug-in that is missing, or throws while
  /// it is made or initialised, costs a line; the others still load. Waits for their `initialize`.
  void loadPlugins(const std::optional<Dictionary>& meta, const Dictionary& configuration);
  /// Name to true for each plug-in in service.
  [[nodiscard]] Dictionary pluginDict() const;

 private:
  struct Plugins;
  std::shared_ptr<Plugins> plugins_;
};

}  // namespace kelvo
