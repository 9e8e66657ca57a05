#include "core/CollectionGate.h"

#include <algorithm>
#include <iterator>

#include "util/KLVLogger.h"

namespace kelvo {
namespace {
constexpr const char* kEvent = "event";
constexpr const char* kCall = "call";
}  // namespace

void BufferedAttributes::applyTo(KLVInfo& record) const {
  for (const auto& [key, value] : attributes) record.setCustomInfo(value, key);
}

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

std::vector<std::shared_ptr<KLVEvent>> CollectionGate::openDatabase() noexcept {
  if (events_.empty()) databaseExists_ = true;
  return takeEvents();
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
  return admit(databaseExists_, kEvent, [&] {
    events_.push_back(event);
    if (event->eventType() == KLVEventType::app) awaitsCount_ = event;
  });
}

bool CollectionGate::admitCount(const std::shared_ptr<KLVEvent>& event) {
  if (std::exchange(awaitsCount_, nullptr) == event) return false;
  return admit(databaseExists_, kEvent, [&] { events_.push_back(event); });
}

bool CollectionGate::admitEventUnbuffered() const {
  const bool stores = decide(databaseExists_) == Decision::store;
  if (!stores) logRefusal(kEvent);
  return stores;
}

bool CollectionGate::admitAttributes(const BufferedAttributes& call) {
  return admit(recordsExist_, kCall, [&] { attributes_.push_back(call); });
}

bool CollectionGate::admitToken(const std::string& token, bool recordExists) {
  return admit(recordExists, kCall, [&] { token_ = token; });
}

std::vector<BufferedAttributes> CollectionGate::takeUserAttributes() {
  const auto session = std::stable_partition(attributes_.begin(), attributes_.end(),
                                             [](const BufferedAttributes& call) { return call.isUser; });
  std::vector<BufferedAttributes> ofUser(std::make_move_iterator(attributes_.begin()),
                                         std::make_move_iterator(session));
  attributes_.erase(attributes_.begin(), session);
  return ofUser;
}

void CollectionGate::putBack(const std::vector<std::shared_ptr<KLVEvent>>& events) {
  events_.insert(events_.begin(), events.begin(), events.end());
}

void CollectionGate::putBack(const std::vector<BufferedAttributes>& calls) {
  attributes_.insert(attributes_.begin(), calls.begin(), calls.end());
}

void CollectionGate::logRefusal(const char* kind) {
  KLV_ERROR("SDK Disabled - ignoring {}", kind);
}

}  // namespace kelvo
