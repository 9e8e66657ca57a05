#include "network/HTTPGroup.h"

#include <utility>

namespace kelvo {

HTTPGroup::~HTTPGroup() {
  std::function<void()> ended;
  {
    const Lock lock(mutex_);
    ended.swap(ended_);
  }
  if (ended) ended();
}

HTTPCompletion HTTPGroup::guard(HTTPCompletion completion) {
  return [group = shared_from_this(), completion = std::move(completion)](const auto& data, const auto& response,
                                                                          const auto& error) {
    if (!group->enter()) return;
    const std::shared_ptr<void> leaving(nullptr, [&group](void*) { group->leave(); });
    if (completion) completion(data, response, error);
  };
}

bool HTTPGroup::isClosed() const {
  const Lock lock(mutex_);
  return isClosed_;
}

void HTTPGroup::close(std::function<void()> idle, std::function<void()> ended) {
  {
    const Lock lock(mutex_);
    if (std::exchange(isClosed_, true)) return;
    ended_ = std::move(ended);
    if (running_ > 0) {
      idle_ = std::move(idle);
      return;
    }
  }
  idle();
}

bool HTTPGroup::enter() {
  const Lock lock(mutex_);
  if (isClosed_) return false;
  ++running_;
  return true;
}

void HTTPGroup::leave() {
  std::function<void()> idle;
  {
    const Lock lock(mutex_);
    if (--running_ == 0) idle.swap(idle_);
  }
  if (idle) idle();
}

}  // namespace kelvo
