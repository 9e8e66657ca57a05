#include "platform/HostInterface.h"

#include <utility>

#include "platform/ProcessWide.h"
#include "platform/ThreadSafety.h"

namespace kelvo {
namespace {

struct Held {
  Mutex mutex;
  std::shared_ptr<ViewTree> tree GUARDED_BY(mutex);
};

Held& held() {
  static ProcessWide<Held> instance;
  return *instance;
}

}  // namespace

Screen::Screen(std::shared_ptr<ViewController> its)
    : className(its->className()), kind(its->kind()), controller(std::move(its)) {}

Screen::Screen(std::string itsClassName, std::optional<std::string> itsTitle)
    : className(std::move(itsClassName)), title(std::move(itsTitle)) {}

std::string Screen::klvName() const {
  return className.substr(className.rfind('.') + 1);  // the whole name if it has no "."
}

void HostInterface::setViewTree(std::shared_ptr<ViewTree> tree) {
  Held& current = held();
  const Lock lock(current.mutex);
  current.tree.swap(tree);  // the argument destroys the former tree after the unlock
}

std::shared_ptr<ViewTree> HostInterface::viewTree() {
  Held& current = held();
  const Lock lock(current.mutex);
  return current.tree;
}

}  // namespace kelvo
