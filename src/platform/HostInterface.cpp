#include "platform/HostInterface.h"

#include <mutex>
#include <utility>

#include "platform/Immortal.h"

namespace kelvo {
namespace {

struct Held {
  std::mutex mutex;
  std::shared_ptr<ViewTree> tree;
};

Held& held() {
  static Immortal<Held> instance;
  return *instance;
}

}  // namespace

Screen::Screen(std::shared_ptr<ViewController> its)
    : className(its->className()), kind(its->kind()), controller(std::move(its)) {}

Screen::Screen(std::string itsClassName, std::optional<std::string> itsTitle)
    : className(std::move(itsClassName)), title(std::move(itsTitle)) {}

std::string Screen::klvName() const {
  return className.substr(className.rfind('.') + 1);  // all of it without a "."
}

void HostInterface::setViewTree(std::shared_ptr<ViewTree> tree) {
  const std::lock_guard lock(held().mutex);
  held().tree.swap(tree);  // the former tree dies with the argument, outside the lock
}

std::shared_ptr<ViewTree> HostInterface::viewTree() {
  const std::lock_guard lock(held().mutex);
  return held().tree;
}

}  // namespace kelvo
