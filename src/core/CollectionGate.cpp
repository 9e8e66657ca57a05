#include "core/CollectionGate.h"

#include <utility>

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

void CollectionGate::close() noexcept {
  isClosed_ = true;
  databaseExists_ = recordsExist_ = startUpHasEnded_ = false;
  if (state_ != State::idle) state_ = State::initialising;
  KLVLedger::shared().add(KLVLedgerEntry::notStored, events_.size());
  events_.clear();
  attributes_.clear();
  awaitsCount_.reset();
  token_.reset();
  tokenCall_ = {};
}

void CollectionGate::reopen() noexcept {
  const auto token = std::exchange(token_, std::nullopt);
  const auto call = std::exchange(tokenCall_, {});
  close();
  token_ = token;
  tokenCall_ = call;
  isClosed_ = false;
}

void CollectionGate::setEnabled(bool enabled) noexcept {
  if (isClosed_) return;
  if (state_ == State::initialising && enabled) {
    state_ = State::running;
  } else if (state_ == State::running && !enabled) {
    state_ = State::initialising;
  }
}

std::vector<std::shared_ptr<KLVEvent>> CollectionGate::openDatabase() noexcept {
  if (events_.empty()) databaseExists_ = !isClosed_;
  return takeEvents();
}

void CollectionGate::terminate(KLVLedgerEntry reason) noexcept {
  refusal_ = reason;
  KLVLedger::shared().add(refusal_, events_.size());
  events_.clear();
  attributes_.clear();
  if (!databaseExists_ && !isClosed_) state_ = State::terminated;
}

CollectionGate::Decision CollectionGate::decide(bool destinationExists) const noexcept {
  if (isClosed_) return Decision::drop;
  if (state_ == State::terminated) return Decision::refuse;
  return state_ == State::running && destinationExists ? Decision::store : Decision::buffer;
}

template <class Buffer>
bool CollectionGate::admit(bool destinationExists, const char* kind, const Buffer& buffer) {
  switch (decide(destinationExists)) {
    case Decision::store: return true;
    case Decision::buffer: buffer(); return false;
    case Decision::drop: return false;
    case Decision::refuse: break;
  }
  logRefusal(kind);
  return false;
}

void CollectionGate::countRefusal(const KLVEvent& event) const {
  if (!isClosed_ && state_ != State::terminated) return;
  KLVLedger::shared().add(isClosed_ ? KLVLedgerEntry::notStored : refusal_);
  event.call().finish();
}

bool CollectionGate::admitEvent(const std::shared_ptr<KLVEvent>& event) {
  countRefusal(*event);
  return admit(databaseExists_, kEvent, [&] {
    events_.push_back(event);
    if (event->eventType() == KLVEventType::app) awaitsCount_ = event;
  });
}

bool CollectionGate::admitCount(const std::shared_ptr<KLVEvent>& event) {
  if (std::exchange(awaitsCount_, nullptr) == event) return false;
  if (event->eventType() != KLVEventType::app)
    countRefusal(*event);  // an application event has been counted with its row
  return admit(databaseExists_, kEvent, [&] { events_.push_back(event); });
}

bool CollectionGate::admitEventUnbuffered() const {
  const Decision decision = decide(databaseExists_);
  if (decision == Decision::store) return true;
  KLVLedger::shared().add(decision == Decision::drop ? KLVLedgerEntry::notStored : refusal_);
  if (decision != Decision::drop) logRefusal(kEvent);
  return false;
}

bool CollectionGate::admitAttributes(const BufferedAttributes& call) {
  return admit(recordsExist_, kCall, [&] { attributes_.push_back(call); });
}

bool CollectionGate::admitToken(const std::string& token, bool recordExists, const KLVWaitingCall& call) {
  const auto keep = [&] {
    token_ = token;
    tokenCall_ = call;
  };
  if (isClosed_) keep();
  return admit(recordExists, kCall, keep);
}

std::vector<BufferedAttributes> CollectionGate::takeUserAttributes() {
  std::vector<BufferedAttributes> ofUser, others;
  for (auto& call : attributes_) (call.isUser ? ofUser : others).push_back(std::move(call));
  attributes_ = std::move(others);
  return ofUser;
}

void CollectionGate::putBack(const std::vector<std::shared_ptr<KLVEvent>>& events) {
  if (isClosed_) return;
  events_.insert(events_.begin(), events.begin(), events.end());
}

void CollectionGate::putBack(const std::vector<BufferedAttributes>& calls) {
  if (isClosed_) return;
  attributes_.insert(attributes_.begin(), calls.begin(), calls.end());
}

void CollectionGate::logRefusal(const char* kind) {
  KLV_ERROR("SDK Disabled - ignoring {}", kind);
}

}  // namespace kelvo
