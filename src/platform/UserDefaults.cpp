#include "platform/UserDefaults.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "platform/Directories.h"
#include "platform/DispatchQueue.h"
#include "platform/Files.h"
#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "platform/PropertyList.h"
#include "platform/ThreadSafety.h"

namespace kelvo {
namespace {

/// Returns the content of the file at `path`, empty if there is none. Renames a file that is not a property list.
Dictionary load(const std::string& path) {
  if (!fileExists(path)) return {};
  std::string error;
  if (auto content = readPropertyList(path, &error)) return *std::move(content);
  const std::string aside = path + ".corrupt";
  const bool moved = std::rename(path.c_str(), aside.c_str()) == 0;
  reportProblem(__PRETTY_FUNCTION__, fmt::format("{} cannot be used ({}); the defaults begin empty{}", path, error,
                                                 moved ? ", it is kept as " + aside : ""));
  return {};
}

}  // namespace

/// Tasks of the queue share the ownership, so the object may outlive the store.
struct UserDefaults::Impl : std::enable_shared_from_this<Impl> {
  explicit Impl(std::string file) : path(std::move(file)) {}

  /// Returns the null value if `key` is absent.
  Value valueOf(std::string_view key) EXCLUDES(mutex) {
    loadOnce();
    const Lock lock(mutex);
    return values[key];
  }

  /// Calls `apply` with the values and the mutex held. `apply` returns whether it has changed them.
  template <class Change>
  void change(Change&& apply) EXCLUDES(mutex) {
    loadOnce();
    {
      const Lock lock(mutex);
      if (!apply(values)) return;
      dirty = true;
      if (std::exchange(flushWaits, true)) return;
    }
    queue.async([self = shared_from_this()] { self->flush(); });
  }

  /// Writes unsaved changes to the file. Returns false on failure. Thread: the queue.
  bool flush() EXCLUDES(mutex) {
    queue.assertCurrent();
    Dictionary content;
    {
      const Lock lock(mutex);
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
    if (!std::exchange(failing, true)) {  // reports once, not at every change while the disk is full
      reportProblem(__PRETTY_FUNCTION__, fmt::format("{} cannot be written: {}", path, error));
    }
    const Lock lock(mutex);
    dirty = true;
    return false;
  }

  /// Thread: the queue.
  bool erase() EXCLUDES(mutex) {
    queue.assertCurrent();
    {
      const Lock lock(mutex);
      values = {};
      dirty = false;
    }
    bool isDone = true;
    for (const std::string& each : {path, path + ".corrupt"})
      isDone &= std::remove(each.c_str()) == 0 || errno == ENOENT;
    return isDone;
  }

  void loadOnce() EXCLUDES(mutex) {
    std::call_once(loaded, [this] {
      Dictionary content = load(path);
      const Lock lock(mutex);
      values = std::move(content);
    });
  }

  const std::string path;
  std::once_flag loaded;
  Mutex mutex;
  Dictionary values GUARDED_BY(mutex);
  bool dirty GUARDED_BY(mutex) = false;       // `values` has changes that the file does not have
  bool flushWaits GUARDED_BY(mutex) = false;  // a flush is submitted, but has not begun
  bool failing GUARDED_BY(queue) = false;     // Queue: `queue`. The last write has failed
  DispatchQueue queue{"com.kelvo.serial.defaults"};
};

UserDefaults& UserDefaults::standard() {
  struct Standard {
    UserDefaults defaults{Directories::inLibrary("Preferences/" + Directories::storageName() + ".plist")};
  };
  static ProcessWide<Standard> instance;
  return instance->defaults;
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

bool UserDefaults::erase() {
  impl_->loadOnce();
  return impl_->queue.sync([this] { return impl_->erase(); });
}

bool UserDefaults::synchronize() {
  impl_->loadOnce();
  return impl_->queue.sync([this] { return impl_->flush(); });
}

}  // namespace kelvo
