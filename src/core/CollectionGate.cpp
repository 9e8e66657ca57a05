#include "core/CollectionGate.h"

#include "util/KLVLogger.h"

namespace kelvo {
namespace {
constexpr const char* kEvent = "event";
constexpr const char* kCall = "call";
}  // namespace

bool CollectionGate::begin() noexcept {
  if (state_ != State::idle) return false;
  state_ = State::initialising;
  return true;
}

void CollectionGate::setEnabled(bool enabled) noexcept {
  if (state_ == State::initialising && enabled) {
    state_ = State::running;
  } else if (state_ == State::running && !enabled) {
    state_ = State::initialising;
  }
}

void CollectionGate::terminate() noexcept {
  events_.clear();
  attributes_.clear();
  if (!databaseExists_) state_ = State::terminated;
}

CollectionGate::Decision CollectionGate::decide(bool destinationExists) const noexcept {
  if (state_ == State::terminated) return Decision::refuse;
  return state_ == State::running && destinationExists ? Decision::store : Decision::buffer;
}

template <class Buffer>
bool CollectionGate::admit(bool destinationExists, const char* kind, const Buffer& buffer) {
  switch (decide(destinationExists)) {
    case Decision::store: return true;
    case Decision::buffer: buffer(); return false;
    case Decision::refuse: break;
  }
  logRefusal(kind);
  return false;
}

bool CollectionGate::admitEvent(const std::shared_ptr<KLVEvent>& event) {
  return admit(databaseExists_, kEvent, [&] { bufferEvent(event); });
}

bool CollectionGate::admitEventUnbuffered() const {
  const bool stores = decide(databaseExists_) == Decision::store;
  if (!stores) logRefusal(kEvent);
  return stores;
}

bool CollectionGate::admitAttributes(BufferedAttributes call, bool recordExists) {
  return admit(recordExists, kCall, [&] { attributes_.push_back(std::move(call)); });
}

bool CollectionGate::admitToken(const std::string& token, bool recordExists) {
  return admit(recordExists, kCall, [&] { token_ = token; });
}

void CollectionGate::logRefusal(const char* kind) {
  KLV_ERROR("SDK Disabled - ignoring {}", kind);
}

}  // namespace kelvo
