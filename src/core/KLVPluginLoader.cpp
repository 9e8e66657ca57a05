#include "core/KLVPluginLoader.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/Bundle.h"
#include "platform/DispatchQueue.h"
#include "platform/Immortal.h"
#include "platform/ProcessWide.h"
#include "platform/ThreadSafety.h"
#include "util/KLVLogger.h"
#include "util/KLVPluginName.h"

namespace kelvo {
namespace {

using Factory = KLVPluginLoader::Factory;
using Arrival = std::function<void(Factory)>;

/// An application's initializers usually run within this time after the library's.
constexpr std::chrono::seconds kTimeToRegister(1);

/// A plug-in whose class is missing.
struct Awaited {
  Arrival arrival;
  bool mustReport = false;
};

struct Classes {
  Mutex mutex;
  std::map<std::string, Factory, std::less<>> byName GUARDED_BY(mutex);
  std::map<std::string, Awaited, std::less<>> awaited GUARDED_BY(mutex);
};

Classes& classes() {
  static Immortal<Classes> instance;
  return *instance;
}

/// The classes stay: initialisers have registered them.
[[maybe_unused]] const ResetAtEnd classesAreReset([] {
  const Lock lock(classes().mutex);
  classes().awaited.clear();
});

bool isRegistered(const std::string& name) {
  Classes& known = classes();
  const Lock lock(known.mutex);
  return known.byName.count(name) > 0;
}

/// Returns the factory of the class `name`. If there is none, returns nullptr, and calls `awaited.arrival` on a pool
/// thread once the class is registered.
Factory findOrAwait(const std::string& name, Awaited awaited) {
  Classes& known = classes();
  const Lock lock(known.mutex);
  if (const auto found = known.byName.find(name); found != known.byName.end()) return found->second;
  known.awaited.insert_or_assign(name, std::move(awaited));
  return nullptr;
}

/// Returns the names of the registered classes for a log line.
std::string classNames() {
  Classes& known = classes();
  const Lock lock(known.mutex);
  std::string names;
  for (const auto& [name, factory] : known.byName) names += (names.empty() ? "" : ", ") + name;
  return names.empty() ? "none" : names;
}

/// Returns true if this code is part of the shared library. A plug-in's shared object links the shared library; in a
/// host of the static library, it would bring a second Kelvo that uses the same home.
bool isSharedLibrary() {
  Dl_info place{};
  if (::dladdr(reinterpret_cast<const void*>(&isSharedLibrary), &place) == 0) return false;
  const std::string path(place.dli_fname);
  return path.substr(path.rfind('/') + 1).rfind("libkelvo.so", 0) == 0;
}

/// Opens the shared object of the plug-in, nullopt if the bundle has none that may be used.
std::optional<Bundle::Resource> sharedObject(const std::string& name) {
  if (name.find('/') != std::string::npos) return std::nullopt;  // the path must stay in the bundle
  return Bundle::main().open(pluginObject(name), "so");
}

/// Loads the shared object of the plug-in permanently. Its initializers register the class. Returns false after one
/// ERROR line if there is an object that cannot be loaded.
bool openSharedObject(const std::string& name) {
  const auto object = sharedObject(name);
  if (!object) return true;
  if (!isSharedLibrary()) {
    KLV_ERROR("{} is left alone: plug-ins in shared objects need a host of the shared library", object->path);
    return false;
  }
  if (::dlopen(object->loadablePath().c_str(), RTLD_NOW | RTLD_LOCAL) != nullptr) return true;
  KLV_ERROR("{} could not be loaded: {}", object->path, ::dlerror());
  return false;
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

  std::atomic<bool> areLoaded{false};
  Mutex mutex;  ///< never held while a plug-in runs
  std::vector<std::shared_ptr<Plugin>> all GUARDED_BY(mutex);
  Dictionary pluginDict GUARDED_BY(mutex);
};

KLVPluginLoader::KLVPluginLoader() : plugins_(std::make_shared<Plugins>()) {}

void KLVPluginLoader::registerClass(std::string_view name, Factory make) {
  Arrival arrival;
  bool isFirst = false;
  {
    Classes& known = classes();
    const Lock lock(known.mutex);
    isFirst = known.byName.emplace(name, make).second;
    if (const auto waiting = known.awaited.find(name); waiting != known.awaited.end()) {
      arrival = std::move(waiting->second.arrival);
      known.awaited.erase(waiting);
    }
  }
  if (!isFirst) KLV_ERROR("Ignoring a second plug-in class called {}", name);
  // Not on this thread: an initializer registers the class, before the application can run a plug-in.
  if (arrival) DispatchQueue::global().async([arrival = std::move(arrival), make] { arrival(make); });
}

void KLVPluginLoader::loadPlugins(const std::optional<Dictionary>& meta, const Dictionary& configuration) {
  KLV_DEBUG("Loading plugins with meta data: {} and config: {}", meta, configuration);
  if (!meta || plugins_->areLoaded.exchange(true)) return;
  bool isOneMissing = false;
  for (const auto& [key, isOn] : meta.value_or(Dictionary())) {
    if (key == "Core" || !isOn.asBool()) continue;
    KLV_DEBUG("Plugin with name: {} given", key);
    const bool hasFailed = !isRegistered(key) && !openSharedObject(key);
    const auto arrival = [plugins = plugins_, name = key, configuration](Factory arrived) {
      plugins->make(name, arrived, configuration);
    };
    const Factory factory = findOrAwait(key, {arrival, !hasFailed});
    if (factory == nullptr) {
      KLV_WARN("No plugin found with key - {}", key);
      isOneMissing = true;
    } else {
      plugins_->make(key, factory, configuration);
    }
  }
  if (isOneMissing) DispatchQueue::global().after(kTimeToRegister, reportMissing);
}

void KLVPluginLoader::reportMissing() {
  std::vector<std::string> missing;
  {
    Classes& known = classes();
    const Lock lock(known.mutex);
    for (auto& [name, awaited] : known.awaited) {
      if (std::exchange(awaited.mustReport, false)) missing.push_back(name);
    }
  }
  for (const std::string& name : missing) {
    KLV_ERROR("Plug-in {} of the bundle is not loaded: no class of this name is registered (registered: {}), and {}",
              name, classNames(),
              sharedObject(name)
                  ? "its shared object registers none"
                  : fmt::format("there is no usable {}.so in {}", pluginObject(name), Bundle::main().directory()));
  }
}

Dictionary KLVPluginLoader::pluginDict() const {
  const Lock lock(plugins_->mutex);
  return plugins_->pluginDict;
}

}  // namespace kelvo
