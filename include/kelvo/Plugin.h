#pragma once

#include <memory>

#include "kelvo/Event.h"
#include "kelvo/Export.h"
#include "kelvo/PluginServices.h"
#include "kelvo/Value.h"

/// Plug-ins. A host switches a plug-in on by its class name, with the value true, in the "Kelvo" dictionary of its
/// `Info.plist`:
///
///     class Greeter final : public kelvo::Plugin {
///       void initialize(const kelvo::Dictionary&) override {
///         const auto key = kelvo::identifierKey(kelvo::KLVEventType::app, "Purchase");
///         kelvo::PluginServices::registerIdentifer(key, shared_from_this());
///       }
///       void onEvent(const kelvo::Event& event) override { ... }
///     };
///     KELVO_PLUGIN(Greeter);
///
/// The class is linked into the application, or into a shared object `libkelvo-<Name>.so` in the application's bundle
/// (the CMake function `kelvo_add_plugin` makes one). The library loads the shared object if no class of that name is
/// linked in. Such an object must link the shared library, and only hosts of the shared library load it. If the library
/// finds no class of a name, it writes one ERROR line; `kelvo-inspect --doctor` reports it, too.
namespace kelvo {

/// Receives events from the bus. The bus shares the ownership of a listener while it is registered.
class KELVO_EXPORT EventListener {
 public:
  EventListener();
  virtual ~EventListener();
  EventListener(const EventListener&) = delete;
  EventListener& operator=(const EventListener&) = delete;

  /// Called on the bus's serial queue, for one event and one listener at a time. A listener that blocks delays every
  /// later event, but no host call. An exception is logged, and the next listener is called. Events may still arrive
  /// during exit, after the application's static objects are destroyed.
  virtual void onEvent(const Event& event) = 0;

 private:
  friend class PluginServices;
  class Adapter;
  static std::shared_ptr<Adapter> adapterOf(const std::shared_ptr<EventListener>& listener);
  const std::unique_ptr<Adapter> adapter_;
};

// `enable_shared_from_this` has no virtual destructor; nothing deletes a plug-in through it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// The base of all plug-ins. The library makes each plug-in once, after the start-up has begun a session, and never
/// destroys it. If the constructor or `initialize` throws, the library drops the plug-in with one ERROR line; listeners
/// that it has registered stay registered.
class KELVO_EXPORT Plugin : public EventListener, public std::enable_shared_from_this<Plugin> {
 public:
  Plugin() = default;
  ~Plugin() override;

  /// Called once, on the HTTP callback queue (on a pool thread if the class was registered late). The start-up waits
  /// for it. `configuration` is the remote configuration in force. `shared_from_this()` may be registered as a listener
  /// from now on.
  virtual void initialize(const Dictionary& configuration) = 0;
  void onEvent(const Event&) override {}

  /// Registers a class; `KELVO_PLUGIN` calls it. Its name is the part of `text` after the last ":" or blank. A later
  /// class of the same name is ignored with one ERROR line. Thread-safe. Returns true, always.
  static bool registerClass(const char* text, std::shared_ptr<Plugin> (*make)()) noexcept;
};

#pragma GCC diagnostic pop

}  // namespace kelvo

/// Registers the plug-in `Class` under its name without namespaces: `KELVO_PLUGIN(acme::Nag)` and, in the namespace,
/// `KELVO_PLUGIN(Nag)` both register "Nag". Use it once for each class, in a source file. In a static library, the host
/// must also use another symbol of that source, or the linker drops it.
#define KELVO_PLUGIN(Class) KELVO_PLUGIN_NUMBERED(Class, __COUNTER__)
#define KELVO_PLUGIN_NUMBERED(Class, Number) KELVO_PLUGIN_AS(Class, Number)  // expands `__COUNTER__`
// The literal's first word lets `kelvo-inspect --doctor` find the class in the program's file.
#define KELVO_PLUGIN_AS(Class, Number)                                                     \
  [[maybe_unused]] static const bool kelvoPlugin##Number = ::kelvo::Plugin::registerClass( \
      "KELVO_PLUGIN " #Class, []() -> std::shared_ptr<::kelvo::Plugin> { return std::make_shared<Class>(); })
