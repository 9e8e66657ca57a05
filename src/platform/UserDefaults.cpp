#include "platform/UserDefaults.h"

#include <fmt/format.h>

#include <cstdio>
#include <mutex>

#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/DispatchQueue.h"
#include "platform/Files.h"
#include "platform/Immortal.h"
#include "platform/Problem.h"
#include "platform/PropertyList.h"

namespace kelvo {
namespace {

std::string directoryOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

/// The content of the file at `path`; whatever else lies there is set aside.
Dictionary load(const std::string& path) {
  if (!fileExists(path)) return {};
  std::string error;
  const auto text = readFile(path, &error);
  const auto content = text ? parsePropertyList(*text, &error) : std::nullopt;
  if (content && content->get<Dictionary>() != nullptr) return *content->get<Dictionary>();
  if (content) error = "its root is no dictionary";
  const std::string aside = path + ".corrupt";
  const bool moved = std::rename(path.c_str(), aside.c_str()) == 0;
  reportProblem(__PRETTY_FUNCTION__, fmt::format("{} cannot be used ({}); the defaults begin empty{}", path, error,
                                                 moved ? ", it is kept as " + aside : ""));
  return {};
}

}  // namespace

/// Tasks of the queue share it, so it may outlive the store.
struct UserDefaults::Impl : std::enable_shared_from_this<Impl> {
  explicit Impl(std::string file) : path(std::move(file)) {}

  /// Null when there is none.
  Value valueOf(std::string_view key) {
    loadOnce();
    const std::lock_guard lock(mutex);
    return values[key];
  }

  template <class Change>
  void change(Change&& apply) {
    loadOnce();
    {
      const std::lock_guard lock(mutex);
      if (!apply(values)) return;
      dirty = true;
      if (std::exchange(flushWaits, true)) return;
    }
    queue.async([self = shared_from_this()] { self->flush(); });
  }

  /// Runs on the queue only.
  bool flush() {
    Dictionary content;
    {
      const std::lock_guard lock(mutex);
      flushWaits = false;
      if (!std::exchange(dirty, false)) return true;
      content = values;
    }
    FileError error;
    if (makeDirectory(directoryOf(path), true, &error) &&
        writeFileAtomically(path, serialisePropertyList(content), &error)) {
      failing = false;
      return true;
    }
    if (!std::exchange(failing, true)) {  // once, not at every change while a disk is full
      reportProblem(__PRETTY_FUNCTION__, fmt::format("{} cannot be written: {}", path, error));
    }
    const std::lock_guard lock(mutex);
    dirty = true;
    return false;
  }

  void loadOnce() {
    std::call_once(loaded, [this] { values = load(path); });
  }

  const std::string path;
  std::once_flag loaded;
  std::mutex mutex;  // guards the next three
  Dictionary values;
  bool dirty = false;       // memory is ahead of the file
  bool flushWaits = false;  // a flush was posted and has not begun
  bool failing = false;     // on the queue only
  DispatchQueue queue{"com.kelvo.serial.defaults"};
};

UserDefaults& UserDefaults::standard() {
  static Immortal<UserDefaults> instance(
      Directories::inLibrary("Preferences/" + Bundle::main().storageName() + ".plist"));
  return *instance;
}

UserDefaults::UserDefaults(std::string path) : impl_(std::make_shared<Impl>(std::move(path))) {}
UserDefaults::~UserDefaults() = default;

std::optional<std::string> UserDefaults::string(std::string_view key) const {
  const Value value = impl_->valueOf(key);
  if (value.get<std::string>() == nullptr && !value.isNumber()) return std::nullopt;
  return description(value);
}

std::int64_t UserDefaults::integer(std::string_view key) const {
  return impl_->valueOf(key).asInt64();
}
bool UserDefaults::boolean(std::string_view key) const {
  return impl_->valueOf(key).asBool();
}
bool UserDefaults::contains(std::string_view key) const {
  return !impl_->valueOf(key).isNull();
}

void UserDefaults::set(std::string_view key, Value value) {
  if (value.isNull()) return remove(key);
  impl_->change([&](Dictionary& values) {
    const Value* old = values.find(key);
    if (old != nullptr && *old == value) return false;
    values.set(key, std::move(value));
    return true;
  });
}

void UserDefaults::remove(std::string_view key) {
  impl_->change([&](Dictionary& values) {
    const bool changes = values.contains(key);
    values.remove(key);
    return changes;
  });
}

bool UserDefaults::synchronize() {
  impl_->loadOnce();
  return impl_->queue.sync([this] { return impl_->flush(); });
}

}  // namespace kelvo
