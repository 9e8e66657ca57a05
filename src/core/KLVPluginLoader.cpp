#include "core/KLVPluginLoader.h"

#include <dlfcn.h>

#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/Bundle.h"
#include "platform/DispatchQueue.h"
#include "platform/Immortal.h"
#include "platform/ThreadSafety.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

using Factory = KLVPluginLoader::Factory;
using Arrival = std::function<void(Factory)>;

struct Classes {
  Mutex mutex;
  std::map<std::string, Factory, std::less<>> byName GUARDED_BY(mutex);
  std::map<std::string, Arrival, std::less<>> awaited GUARDED_BY(mutex);  ///< by the name of a missing class
};

Classes& classes() {
  static Immortal<Classes> instance;
  return *instance;
}

bool isRegistered(const std::string& name) {
  Classes& known = classes();
  const Lock lock(known.mutex);
  return known.byName.count(name) > 0;
}

/// Returns the factory of the class `name`. If there is none, returns nullptr, and calls `arrival` on a pool thread
/// once the class is registered.
Factory findOrAwait(const std::string& name, Arrival arrival) {
  Classes& known = classes();
  const Lock lock(known.mutex);
  if (const auto found = known.byName.find(name); found != known.byName.end()) return found->second;
  known.awaited.insert_or_assign(name, std::move(arrival));
  return nullptr;
}

/// Returns true if this code is part of the shared library. A plug-in's shared object links the shared library; in a
/// host of the static library, it would bring a second Kelvo that uses the same home.
bool isSharedLibrary() {
  Dl_info place{};
  if (::dladdr(reinterpret_cast<const void*>(&isSharedLibrary), &place) == 0) return false;
  const std::string path(place.dli_fname);
  return path.substr(path.rfind('/') + 1).rfind("libkelvo.so", 0) == 0;
}

/// Loads the shared object of the plug-in permanently. Its initializers register the class.
void openSharedObject(const std::string& name) {
  if (name.find('/') != std::string::npos) return;  // the path must stay in the bundle
  const auto path = Bundle::main().pathForResource("libkelvo-" + name, "so");
  if (!path) return;
  if (!isSharedLibrary()) {
    KLV_ERROR("{} is left alone: plug-ins in shared objects need a host of the shared library", *path);
  } else if (::dlopen(path->c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) {
    KLV_ERROR("{} could not be loaded: {}", *path, ::dlerror());
  }
}

}  // namespace

struct KLVPluginLoader::Plugins {
  /// Makes and initialises one plug-in. Logs one ERROR line if it throws.
  void make(const std::string& name, Factory factory, const Dictionary& configuration) {
    try {
      const auto plugin = factory();
      if (plugin == nullptr) throw std::runtime_error("there is no object of its class");
      plugin->initialize(configuration);
      const Lock lock(mutex);
      all.push_back(plugin);
      pluginDict.set(name, true);
    } catch (const std::exception& fault) {
      KLV_ERROR("Plugin {} could not be started: {}", name, fault.what());
    } catch (...) {
      KLV_ERROR("Plugin {} could not be started", name);
    }
  }

  Mutex mutex;  ///< never held while a plug-in runs
  std::vector<std::shared_ptr<Plugin>> all GUARDED_BY(mutex);
  Dictionary pluginDict GUARDED_BY(mutex);
};

KLVPluginLoader::KLVPluginLoader() : plugins_(std::make_shared<Plugins>()) {}

void KLVPluginLoader::registerClass(std::string_view name, Factory make) {
  Arrival arrival;
  {
    Classes& known = classes();
    const Lock lock(known.mutex);
    if (!known.byName.emplace(name, make).second) return;
    if (const auto waiting = known.awaited.find(name); waiting != known.awaited.end()) {
      arrival = std::move(waiting->second);
      known.awaited.erase(waiting);
    }
  }
  // Not on this thread: an initializer registers the class, before the application can run a plug-in.
  if (arrival) DispatchQueue::global().async([arrival = std::move(arrival), make] { arrival(make); });
}

void KLVPluginLoader::loadPlugins(const std::optional<Dictionary>& meta, const Dictionary& configuration) {
  KLV_DEBUG("Loading plugins with meta data: {} and config: {}", meta, configuration);
  for (const auto& [key, isOn] : meta.value_or(Dictionary())) {
    if (key == "Core" || !isOn.asBool()) continue;
    KLV_DEBUG("Plugin with name: {} given", key);
    if (!isRegistered(key)) openSharedObject(key);
    const Factory factory = findOrAwait(key, [plugins = plugins_, name = key, configuration](Factory arrived) {
      plugins->make(name, arrived, configuration);
    });
    if (factory == nullptr) {
      KLV_WARN("No plugin found with key - {}", key);
    } else {
      plugins_->make(key, factory, configuration);
    }
  }
}

Dictionary KLVPluginLoader::pluginDict() const {
  const Lock lock(plugins_->mutex);
  return plugins_->pluginDict;
}

}  // namespace kelvo
