#include "core/KLVPluginLoader.h"

#include <dlfcn.h>

#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/Bundle.h"
#include "platform/DispatchQueue.h"
#include "platform/Immortal.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

using Factory = KLVPluginLoader::Factory;
using Arrival = std::function<void(Factory)>;

struct Classes {
  std::mutex mutex;
  std::map<std::string, Factory, std::less<>> byName;
  std::map<std::string, Arrival, std::less<>> awaited;  // what was looked for in vain
};

Classes& classes() {
  static Immortal<Classes> instance;
  return *instance;
}

bool isRegistered(const std::string& name) {
  const std::lock_guard lock(classes().mutex);
  return classes().byName.count(name) > 0;
}

/// nullptr when there is no such class; then `arrival` is called once there is.
Factory findOrAwait(const std::string& name, Arrival arrival) {
  const std::lock_guard lock(classes().mutex);
  if (const auto found = classes().byName.find(name); found != classes().byName.end()) return found->second;
  classes().awaited.insert_or_assign(name, std::move(arrival));
  return nullptr;
}

/// Whether this code runs from the shared library. A shared object brings that library along; beside a static one,
/// it would be a second Kelvo on the same home.
bool isSharedLibrary() {
  Dl_info place{};
  if (::dladdr(reinterpret_cast<const void*>(&isSharedLibrary), &place) == 0) return false;
  const std::string path(place.dli_fname);
  return path.substr(path.rfind('/') + 1).rfind("libkelvo.so", 0) == 0;
}

/// Loads the shared object of the plug-in for good; its initializers register the class.
void openSharedObject(const std::string& name) {
  if (name.find('/') != std::string::npos) return;  // it would lead out of the bundle
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
  void make(const std::string& name, Factory factory, const Dictionary& configuration) {
    try {
      const auto plugin = factory();
      if (plugin == nullptr) throw std::runtime_error("there is no object of its class");
      plugin->initialize(configuration);
      const std::lock_guard lock(mutex);
      all.push_back(plugin);
      pluginDict.set(name, true);
    } catch (const std::exception& fault) {
      KLV_ERROR("Plugin {} could not be started: {}", name, fault.what());
    } catch (...) {
      KLV_ERROR("Plugin {} could not be started", name);
    }
  }

  std::mutex mutex;  // never held while a plug-in runs
  std::vector<std::shared_ptr<Plugin>> all;
  Dictionary pluginDict;
};

KLVPluginLoader::KLVPluginLoader() : plugins_(std::make_shared<Plugins>()) {}

void KLVPluginLoader::registerClass(std::string_view name, Factory make) {
  Arrival arrival;
  {
    const std::lock_guard lock(classes().mutex);
    if (!classes().byName.emplace(name, make).second) return;
    if (const auto waiting = classes().awaited.find(name); waiting != classes().awaited.end()) {
      arrival = std::move(waiting->second);
      classes().awaited.erase(waiting);
    }
  }
  // Not here: an initializer registers, while the application may not be ready to run a plug-in.
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
  const std::lock_guard lock(plugins_->mutex);
  return plugins_->pluginDict;
}

}  // namespace kelvo
