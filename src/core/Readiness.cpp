#include "core/Readiness.h"

#include <exception>
#include <utility>

#include "platform/ProcessWide.h"
#include "platform/Thread.h"
#include "util/KLVLogger.h"

namespace kelvo {

Readiness& Readiness::shared() {
  static ProcessWide<Readiness> instance;
  return *instance;
}

void Readiness::add(Callback callback) {
  if (!callback) return;
  const auto added = std::make_shared<const Callback>(std::move(callback));
  const Lock lock(mutex_);
  callbacks_.push_back(added);
  if (status_) deliver({added}, *status_);
}

void Readiness::set(State state, std::string reason) {
  const Lock lock(mutex_);
  if (status_ && status_->state == state) return;
  status_ = Status{state, std::move(reason)};
  if (!callbacks_.empty()) deliver(callbacks_, *status_);
}

void Readiness::deliver(Callbacks callbacks, Status status) {
  auto tell = [callbacks = std::move(callbacks), status = std::move(status)] {
    for (const auto& callback : callbacks) {
      try {
        (*callback)(status);
      } catch (const std::exception& fault) {
        KLV_ERROR("A callback of onReady has thrown: {}", fault.what());
      } catch (...) {
        KLV_ERROR("A callback of onReady has thrown");
      }
    }
  };
  if (!threadsAreHeld()) return queue_.async(std::move(tell));
  mutex_.unlock();  // a callback may call `add`
  queue_.sync(tell);
  mutex_.lock();
}

}  // namespace kelvo
