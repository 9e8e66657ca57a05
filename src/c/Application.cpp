// The functions of Application.h.
#include "kelvo/Application.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "c/HostCall.h"
#include "c/Interface.h"

using namespace kelvo;

namespace {

using Task = std::function<void()>;

/// Runs and deletes a task that was given to the host's loop.
void runTask(void* context) {
  const std::unique_ptr<Task> task(static_cast<Task*>(context));
  c::guarded(*task);
}

}  // namespace

void kelvo_set_log_sink(kelvo_log_sink sink, void* context) {
  Application::setLogSink(c::logSink(sink, context));
}

void kelvo_write_log_line(kelvo_log_level level, const char* line) {
  const auto known = c::logLevel(level);
  if (known && line != nullptr) Application::writeLogLine(*known, line);
}

void kelvo_will_show(const char* class_name, const char* title) {
  Application::willShow(c::text(class_name), c::text(title));
}

void kelvo_did_show(const char* class_name, const char* title) {
  Application::didShow(c::text(class_name), c::text(title));
}

void kelvo_show(const char* name, const char* title) {
  Application::show(c::text(name), c::text(title));
}

void kelvo_did_become_active(void) {
  Application::didBecomeActive();
}

void kelvo_will_resign_active(void) {
  Application::willResignActive();
}

void kelvo_log_device_token(const char* token) {
  Application::logDeviceToken(c::text(token));
}

void kelvo_log_device_token_data(const void* bytes, size_t size) {
  c::guarded([&] {
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    Application::logDeviceToken(first != nullptr ? Data(first, first + size) : Data());
  });
}

void kelvo_set_screen_size(float width, float height) {
  Application::setScreenSize(width, height);
}

void kelvo_mark_as_react_native(void) {
  Application::markAsReactNative();
}

void kelvo_mark_as_cordova(void) {
  Application::markAsCordova();
}

void kelvo_set_main_loop(kelvo_post_callback post, kelvo_is_current_callback is_current, void* context) {
  if (post == nullptr || is_current == nullptr) return Application::setMainLoop({}, {});
  Application::setMainLoop(
      [post, context](Task task) {
        const c::HostCall call;
        if (call.mayBegin()) post(runTask, std::make_unique<Task>(std::move(task)).release(), context);
      },
      [is_current, context] {
        const c::HostCall call;
        return call.mayBegin() && is_current(context);
      });
}
