#include "platform/NotificationCenter.h"

#include <exception>

#include "platform/Problem.h"
#include "platform/ProcessWide.h"

namespace kelvo {
namespace {

void call(const NotificationCenter::InfoHandler& handler, const std::any& userInfo) {
  try {
    handler(userInfo);
  } catch (const std::exception& exception) {
    reportProblem("NotificationCenter", std::string("A handler threw: ") + exception.what());
  } catch (...) {
    reportProblem("NotificationCenter", "A handler threw an unknown exception");
  }
}

}  // namespace

NotificationCenter& NotificationCenter::defaultCenter() {
  static ProcessWide<NotificationCenter> instance;
  return *instance;
}

NotificationCenter::Observation NotificationCenter::observe(std::string_view name, Handler handler) {
  return observe(name, [plain = std::move(handler)](const std::any&) { plain(); });
}

NotificationCenter::Observation NotificationCenter::observe(std::string_view name, InfoHandler handler) {
  auto entry = std::make_shared<Entry>(Entry{std::string(name), std::move(handler)});
  const Lock lock(mutex_);
  std::erase_if(entries_, [](const auto& weak) { return weak.expired(); });
  entries_.push_back(entry);
  return Observation(std::move(entry));
}

void NotificationCenter::post(std::string_view name, const std::any& userInfo) {
  std::vector<std::weak_ptr<Entry>> entries;
  {
    const Lock lock(mutex_);
    entries = entries_;
  }
  // Locks each entry just before the call, because an earlier handler may end a later subscription.
  for (const auto& weak : entries) {
    if (const auto entry = weak.lock(); entry != nullptr && entry->name == name) call(entry->handler, userInfo);
  }
}

}  // namespace kelvo
