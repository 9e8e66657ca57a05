#include "kelvo-collector/http/Bell.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace kelvo::collector {
namespace {

/// Half of the connections that can be open, so that waiting pages never use up those that the service needs.
constexpr std::size_t kMostSubscriptions = 128;

}  // namespace

Bell::Subscription::Subscription(Bell& bell) : bell_(bell) {
  const Lock lock(bell.mutex_);
  if (bell.descriptors_.size() >= kMostSubscriptions) return;
  descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (descriptor_ >= 0) bell.descriptors_.insert(descriptor_);
}

Bell::Subscription::~Subscription() {
  if (descriptor_ < 0) return;
  const Lock lock(bell_.mutex_);
  bell_.descriptors_.erase(descriptor_);
  close(descriptor_);
}

void Bell::Subscription::clear() const {
  eventfd_t rings = 0;
  eventfd_read(descriptor_, &rings);
}

void Bell::ring() {
  const Lock lock(mutex_);
  for (const int descriptor : descriptors_) eventfd_write(descriptor, 1);
}

void Bell::ringForServiceChange() {
  ++serviceChanges_;
  ring();
}

void Bell::ringForErasure() {
  ++erasures_;
  ring();
}

void Bell::ringForReset() {
  ++resets_;
  ring();
}

}  // namespace kelvo::collector
