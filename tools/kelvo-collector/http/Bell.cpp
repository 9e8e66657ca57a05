#include "kelvo-collector/http/Bell.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace kelvo::collector {
namespace {

/// Half of the connections that can be open, so that the service is always left the other half.
constexpr std::size_t kMostEars = 128;

}  // namespace

Bell::Ear::Ear(Bell& bell) : bell_(bell) {
  const std::lock_guard lock(bell_.mutex_);
  if (bell_.descriptors_.size() >= kMostEars) return;
  descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (descriptor_ >= 0) bell_.descriptors_.insert(descriptor_);
}

Bell::Ear::~Ear() {
  if (descriptor_ < 0) return;
  const std::lock_guard lock(bell_.mutex_);
  bell_.descriptors_.erase(descriptor_);
  close(descriptor_);
}

void Bell::Ear::clear() const {
  eventfd_t rings = 0;
  eventfd_read(descriptor_, &rings);
}

void Bell::ring() {
  const std::lock_guard lock(mutex_);
  for (const int descriptor : descriptors_) eventfd_write(descriptor, 1);
}

void Bell::serviceChanged() {
  ++serviceChanges_;
  ring();
}

void Bell::wasReset() {
  ++resets_;
  ring();
}

}  // namespace kelvo::collector
