// The functions of PluginServices.h.
#include "kelvo/PluginServices.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "c/HostCall.h"
#include "c/Interface.h"
#include "kelvo/Plugin.h"

using namespace kelvo;

struct kelvo_listener {
  std::shared_ptr<EventListener> shared;
};

namespace {

constexpr KLVEventType typeOf(kelvo_event_type type) noexcept {
  return static_cast<KLVEventType>(type);
}

constexpr kelvo_event_type typeOf(KLVEventType type) noexcept {
  return static_cast<kelvo_event_type>(static_cast<int>(type));
}

static_assert(typeOf(KLVEventType::unknown) == KELVO_EVENT_UNKNOWN &&
              typeOf(KELVO_EVENT_UNKNOWN) == KLVEventType::unknown);
static_assert(typeOf(KLVEventType::userInteraction) == KELVO_EVENT_USER_INTERACTION);
static_assert(typeOf(KLVEventType::survey) == KELVO_EVENT_SURVEY);
static_assert(typeOf(KLVEventType::applicationCrash) == KELVO_EVENT_APPLICATION_CRASH);

/// Passes events to a callback of C.
class Listener final : public EventListener {
 public:
  Listener(kelvo_event_callback callback, kelvo_callback release, void* context)
      : callback_(callback), release_(release), context_(context) {}
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() override {
    const c::HostCall call;
    if (release_ != nullptr && call.mayBegin()) release_(context_);
  }

  void onEvent(const Event& event) override {
    if (callback_ == nullptr) return;
    const std::string attributes = description(event.attributes);
    const kelvo_event converted{sizeof(kelvo_event), event.name.c_str(), attributes.c_str(), typeOf(event.type),
                                event.time};
    if (const c::HostCall call; call.mayBegin()) callback_(&converted, context_);
  }

 private:
  const kelvo_event_callback callback_;
  const kelvo_callback release_;
  void* const context_;
};

std::function<void()> functionOf(kelvo_callback callback, void* context) noexcept {
  if (callback == nullptr) return {};
  return [callback, context] {
    if (const c::HostCall call; call.mayBegin()) callback(context);
  };
}

HTTPCallback functionOf(kelvo_http_callback callback, void* context) noexcept {
  if (callback == nullptr) return {};
  return [callback, context](const HTTPAnswer& answer) {
    const kelvo_http_answer converted{sizeof(kelvo_http_answer), answer.status, answer.body.c_str(), answer.body.size(),
                                      answer.error.c_str()};
    if (const c::HostCall call; call.mayBegin()) callback(&converted, context);
  };
}

std::shared_ptr<EventListener> sharedOf(const kelvo_listener* listener) noexcept {
  return listener != nullptr ? listener->shared : nullptr;
}

}  // namespace

void kelvo_get_sync_data(const char* type, const char* version, kelvo_callback completion, void* context) {
  PluginServices::getSyncDataForActionType(c::textOrEmpty(type), c::textOrEmpty(version),
                                           functionOf(completion, context));
}

char* kelvo_get_config(const char* type) {
  return c::returnedJSON(PluginServices::getConfigForActionType(c::textOrEmpty(type)));
}

char* kelvo_get_pid_mid_dict(const char* type) {
  return c::returnedJSON(PluginServices::getPIDMIDDictForType(c::textOrEmpty(type)));
}

void kelvo_persist_pid_mid_dict(const char* json, const char* type) {
  PluginServices::persistPIDMIDDict(c::dictionary(__func__, json), c::textOrEmpty(type));
}

char* kelvo_event_type_name(kelvo_event_type type) {
  char* name = nullptr;
  c::guarded([&] { name = c::returned(std::string(stringFromType(typeOf(type)))); });
  return name;
}

char* kelvo_identifier_key(kelvo_event_type type, const char* identifier) {
  char* key = nullptr;
  c::guarded([&] {
    if (identifier != nullptr) key = c::returned(identifierKey(typeOf(type), identifier));
  });
  return key;
}

kelvo_listener* kelvo_listener_create(kelvo_event_callback on_event, kelvo_callback release, void* context) {
  kelvo_listener* listener = nullptr;
  c::guarded([&] {
    auto handle = std::make_unique<kelvo_listener>();
    handle->shared = std::make_shared<Listener>(on_event, release, context);
    listener = handle.release();
  });
  return listener;
}

void kelvo_listener_free(kelvo_listener* listener) {
  delete listener;
}

void kelvo_register_for_event_type(kelvo_event_type type, const kelvo_listener* listener) {
  PluginServices::registerForEventWithType(typeOf(type), sharedOf(listener));
}

void kelvo_register_for_event_key(const char* key, const kelvo_listener* listener) {
  if (key != nullptr) PluginServices::registerIdentifer(c::textOrEmpty(key), sharedOf(listener));
}

void kelvo_deregister_for_event_type(kelvo_event_type type, const kelvo_listener* listener) {
  PluginServices::deregisterForEventWithType(typeOf(type), sharedOf(listener));
}

void kelvo_deregister_for_event_key(const char* key, const kelvo_listener* listener) {
  if (key != nullptr) PluginServices::deRegisterIdentifer(c::textOrEmpty(key), sharedOf(listener));
}

void kelvo_dispatch_event(kelvo_event_type type, const char* name, const kelvo_attributes* attributes) {
  PluginServices::dispatchEvent(typeOf(type), c::text(name), c::dictionary(__func__, attributes));
}

void kelvo_dispatch_event_json(kelvo_event_type type, const char* name, const char* json) {
  PluginServices::dispatchEvent(typeOf(type), c::text(name), c::dictionary(__func__, json));
}

void kelvo_save_frequency_info(const char* json, const char* identifier) {
  PluginServices::saveFrequencyInfo(c::dictionary(__func__, json), c::text(identifier));
}

char* kelvo_retrieve_frequency_info(const char* identifier) {
  return c::returnedJSON(PluginServices::retrieveFrequencyConfigWithIdentifier(c::text(identifier)));
}

char* kelvo_get_lifetime_counts(const char* const* names, size_t count) {
  char* counts = nullptr;
  c::guarded([&] {
    std::vector<std::string> texts;
    for (std::size_t i = 0; names != nullptr && i < count; ++i) {
      if (names[i] != nullptr) texts.emplace_back(names[i]);
    }
    counts = c::returnedJSON(PluginServices::getLifetimeCountForEvents(texts));
  });
  return counts;
}

int64_t kelvo_get_lifetime_count(const char* name) {
  return PluginServices::getLifetimeCountForEventWithName(c::textOrEmpty(name));
}

char* kelvo_get_session_id(void) {
  return c::returned(PluginServices::getSessionId());
}

int64_t kelvo_get_lifetime_session_count(void) {
  return PluginServices::getLifetimeSessionCount();
}

int64_t kelvo_get_retention_day(void) {
  return PluginServices::getRetentionDay();
}

void kelvo_get_data(const char* path, kelvo_http_callback completion, void* context) {
  PluginServices::getDataFromURLPath(c::text(path), functionOf(completion, context));
}

void kelvo_post_data(const char* path, const char* body, const char* headers, kelvo_http_callback completion,
                     void* context) {
  PluginServices::postDataToURL(c::text(path), c::dictionary(__func__, body), c::dictionary(__func__, headers),
                                functionOf(completion, context));
}

void kelvo_delete_data(const char* path, const char* headers, kelvo_http_callback completion, void* context) {
  PluginServices::makeDeleteRequestToURLPath(c::text(path), c::dictionary(__func__, headers),
                                             functionOf(completion, context));
}

void kelvo_register_timer(double seconds, kelvo_callback callback, void* context) {
  if (callback == nullptr) return;
  PluginServices::registerForTimerNotificationWithInterval(seconds, functionOf(callback, context));
}

void kelvo_execute_after_delay(double seconds, kelvo_callback callback, void* context) {
  PluginServices::executeAfterDelay(seconds, functionOf(callback, context));
}

bool kelvo_action_in_progress(void) {
  return PluginServices::actionInProgress();
}

void kelvo_set_action_in_progress(bool in_progress) {
  PluginServices::setActionInProgress(in_progress);
}
