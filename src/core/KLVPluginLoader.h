#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Plugin.h"
#include "kelvo/Value.h"

namespace kelvo {

/// Makes the plug-ins that the bundle's "Kelvo" dictionary switches on, and owns them until the process ends.
///
/// The loader looks up a class by its exact name: first among the registered classes, then in the shared object
/// `libkelvo-<Name>.so` of the bundle. The library may start before the application's initializers have run. A class
/// that is registered after its lookup is therefore instantiated on registration, on a pool thread. Thread:
/// thread-safe. No lock is held while a plug-in's code runs.
class KLVPluginLoader {
 public:
  using Factory = std::shared_ptr<Plugin> (*)();

  /// Registers a class. A later class of the same name is ignored with one ERROR line.
  static void registerClass(std::string_view name, Factory make);

  KLVPluginLoader();
  /// Makes and initialises the plug-ins of `meta`: its entries, except for "Core", map a class name to true. A plug-in
  /// that is missing or throws costs one WARN or ERROR line; the others still load. Returns after their `initialize`.
  /// Only the first call with a `meta` has an effect.
  void loadPlugins(const std::optional<Dictionary>& meta, const Dictionary& configuration);
  /// Writes one ERROR line for each plug-in whose class is still missing, unless its shared object could not be loaded:
  /// that has cost a line already. Called a second after the lookup, and at exit. Later calls repeat no line.
  static void reportMissing();
  /// Returns a map from the name of each initialised plug-in to true.
  [[nodiscard]] Dictionary pluginDict() const;

 private:
  struct Plugins;
  std::shared_ptr<Plugins> plugins_;
};

}  // namespace kelvo
